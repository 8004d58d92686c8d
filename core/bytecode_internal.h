// Reading and writing a compiled chunk as bytes: bytecode images use it whole, state files
// use it for the chunks that saved functions come from.
#pragma once

#include "core/byte_stream.h"
#include "core/interpreter_internal.h"

#include <memory>

namespace korvel {

void writeChunkBytes(ByteWriter& out, const Chunk& chunk);
// Throws ByteReadError on anything malformed; nothing of the interpreter changes until the
// whole chunk has been checked, apart from interned constant strings.
std::shared_ptr<Chunk> readChunkBytes(Interpreter& vm, ByteReader& in);

std::vector<std::uint8_t> encodeBytecodeImage(const Chunk& chunk);
// Throws ScriptError "Invalid bytecode image: ..." for anything that is not a sound image.
std::shared_ptr<Chunk> decodeBytecodeImage(Interpreter& vm, const std::uint8_t* data, std::size_t size);

}  // namespace korvel
