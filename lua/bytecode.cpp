// KLBC images: "KLBC", version 1, then the chunk name and the checked source, each behind a
// 32-bit little-endian length. Reading checks every length against the bytes that remain.
#include "vm_internal.h"

#include <fstream>
#include <iterator>

namespace korvel::lua {

namespace {

constexpr std::uint32_t kBytecodeVersion = 1;
constexpr char kBytecodeMagic[4] = {'K', 'L', 'B', 'C'};

void appendUint32(LuaBytecode& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
}

std::uint32_t readUint32(const LuaBytecode& bytes, std::size_t offset) {
    return static_cast<std::uint32_t>(bytes[offset]) | static_cast<std::uint32_t>(bytes[offset + 1]) << 8 |
           static_cast<std::uint32_t>(bytes[offset + 2]) << 16 | static_cast<std::uint32_t>(bytes[offset + 3]) << 24;
}

void appendString(LuaBytecode& out, std::string_view text) {
    if (text.size() > UINT32_MAX) throw LuaError("bytecode string is too large");
    appendUint32(out, static_cast<std::uint32_t>(text.size()));
    out.insert(out.end(), text.begin(), text.end());
}

// Reads one length-prefixed string at `offset` and moves past it.
std::string readString(const LuaBytecode& bytes, std::size_t& offset) {
    if (bytes.size() - offset < 4) throw LuaError("bytecode is truncated");
    std::uint32_t length = readUint32(bytes, offset);
    offset += 4;
    if (length > bytes.size() - offset) throw LuaError("bytecode string exceeds file size");
    std::string text(reinterpret_cast<const char*>(bytes.data() + offset), length);
    offset += length;
    return text;
}

struct DecodedImage {
    std::string chunkName;
    std::string source;
};

DecodedImage decodeImage(const LuaBytecode& image) {
    if (image.size() < 8) throw LuaError("bytecode file is too small");
    if (!std::equal(std::begin(kBytecodeMagic), std::end(kBytecodeMagic), image.begin())) {
        throw LuaError("invalid KorvelLua bytecode header");
    }
    if (readUint32(image, 4) != kBytecodeVersion) throw LuaError("unsupported KorvelLua bytecode version");
    std::size_t offset = 8;
    DecodedImage decoded;
    decoded.chunkName = readString(image, offset);
    decoded.source = readString(image, offset);
    // An image written without a name still reports errors under a recognisable one.
    if (decoded.chunkName.empty()) decoded.chunkName = "<lua-bytecode>";
    return decoded;
}

} // namespace

LuaBytecode LuaVM::compileScript(std::string_view source, std::string_view chunkName) {
    parseScript(source, chunkName, m_impl->m_globals);
    LuaBytecode image(std::begin(kBytecodeMagic), std::end(kBytecodeMagic));
    appendUint32(image, kBytecodeVersion);
    appendString(image, chunkName);
    appendString(image, source);
    return image;
}

bool LuaVM::writeBytecodeFile(std::string_view source, std::string_view chunkName, const std::string& outputPath,
                              std::string* error) {
    LuaBytecode image;
    try {
        image = compileScript(source, chunkName);
    } catch (const std::exception& failure) {
        if (error) *error = failure.what();
        return false;
    }
    std::ofstream file(outputPath, std::ios::binary | std::ios::trunc);
    if (!file) {
        if (error) *error = "failed to open file for writing: " + outputPath;
        return false;
    }
    file.write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
    if (!file) {
        if (error) *error = "failed to write file: " + outputPath;
        return false;
    }
    return true;
}

LuaResult LuaVM::runBytecode(const LuaBytecode& image) {
    DecodedImage decoded;
    try {
        decoded = decodeImage(image);
    } catch (const LuaError& error) {
        return LuaResult::failure(error.message());
    }
    return runScriptString(decoded.source, decoded.chunkName);
}

LuaResult LuaVM::runBytecodeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return LuaResult::failure("failed to open file: " + path);
    file.seekg(0, std::ios::end);
    std::streamoff size = file.tellg();
    if (size < 0) return LuaResult::failure("failed to size file: " + path);
    file.seekg(0, std::ios::beg);
    LuaBytecode image(static_cast<std::size_t>(size));
    if (size > 0 && !file.read(reinterpret_cast<char*>(image.data()), size)) {
        return LuaResult::failure("failed to read file: " + path);
    }
    return runBytecode(image);
}

LuaResult LuaVM::runScriptFromBytecodeFile(const std::string& path) { return runBytecodeFile(path); }

} // namespace korvel::lua
