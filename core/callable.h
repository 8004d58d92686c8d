// Function values: script functions, chunks made by load, and native functions.
#pragma once

#include "core/variable.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korvel {

// A native binding: the arguments as a read-only vector, one result. Failures are thrown
// (ScriptError or any std::exception) and become script errors.
using NativeFunction = std::function<Variable(const std::vector<Variable>&)>;

struct FunctionProto;  // the compiled body of a script function (interpreter internal)

struct ScriptCallable : HeapObject {
    enum class Kind : std::uint8_t { Script, Chunk, Native };

    Kind kind = Kind::Native;
    std::string name;                     // used in messages
    NativeFunction native;                // for Kind::Native
    std::shared_ptr<FunctionProto> proto; // for Kind::Script and Kind::Chunk
};

}  // namespace korvel
