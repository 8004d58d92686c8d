// Writing the in-memory form back out as a canonical 44-byte-header 16-bit PCM file, and the
// codec's file helpers.
#include "core/file_io.h"
#include "platform/wav.h"

#include <limits>
#include <new>
#include <stdexcept>

namespace korvel::wav {

void writeU16LE(std::vector<std::uint8_t>& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value & 0xFF));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}

void writeU32LE(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<std::uint8_t>((value >> shift) & 0xFF));
}

namespace {

void writeIdentifier(std::vector<std::uint8_t>& out, const char* identifier) { out.insert(out.end(), identifier, identifier + 4); }

}  // namespace

// Header: "RIFF", 36 + data size, "WAVE", "fmt ", 16, tag 1, channels, rate, byte rate, block
// align, 16 bits, "data", data size; then the samples, little-endian.
bool encode(const DecodedFile& file, std::vector<std::uint8_t>* out) {
    if (!out || file.samples.empty() || file.channels == 0 || file.samples.size() % file.channels != 0) return false;
    // The RIFF and data sizes are 32-bit fields: a sound too long for them cannot be described,
    // and a file with wrapped sizes would be unreadable, so it is refused. The byte rate and
    // block align are only derived figures (readers recompute them from the other fields), and
    // are written truncated to their fields, so that every sound decode accepts can be saved.
    constexpr std::uint64_t kMaxField = std::numeric_limits<std::uint32_t>::max();
    const std::uint64_t dataSize = static_cast<std::uint64_t>(file.samples.size()) * 2;
    if (dataSize > kMaxField - 36) return false;
    const std::uint32_t byteRate = file.sampleRate * file.channels * 2u;
    const std::uint16_t blockAlign = static_cast<std::uint16_t>(file.channels * 2u);

    std::vector<std::uint8_t> bytes;
    try {
        bytes.reserve(static_cast<std::size_t>(44 + dataSize));
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
    writeIdentifier(bytes, "RIFF");
    writeU32LE(bytes, static_cast<std::uint32_t>(36 + dataSize));
    writeIdentifier(bytes, "WAVE");
    writeIdentifier(bytes, "fmt ");
    writeU32LE(bytes, 16);
    writeU16LE(bytes, 1);
    writeU16LE(bytes, file.channels);
    writeU32LE(bytes, file.sampleRate);
    writeU32LE(bytes, byteRate);
    writeU16LE(bytes, blockAlign);
    writeU16LE(bytes, 16);
    writeIdentifier(bytes, "data");
    writeU32LE(bytes, static_cast<std::uint32_t>(dataSize));
    // resize then fill: the space is already reserved, and this loop is a plain store per byte
    // pair where push_back would check capacity each time.
    const std::size_t headerSize = bytes.size();
    bytes.resize(headerSize + static_cast<std::size_t>(dataSize));
    std::uint8_t* p = bytes.data() + headerSize;
    for (std::int16_t sample : file.samples) {
        const std::uint16_t bits = static_cast<std::uint16_t>(sample);
        *p++ = static_cast<std::uint8_t>(bits & 0xFF);
        *p++ = static_cast<std::uint8_t>(bits >> 8);
    }
    *out = std::move(bytes);
    return true;
}

bool encodeFile(const std::string& path, const DecodedFile& file) {
    std::vector<std::uint8_t> bytes;
    if (!encode(file, &bytes)) return false;
    std::string error;
    return korvel::writeFileAtomically(path, bytes, error);
}

bool readFileBytes(const std::string& path, std::vector<std::uint8_t>& out) {
    try {
        return korvel::readFileBytes(path, out);
    } catch (const std::bad_alloc&) {
        return false;  // a file too large for memory cannot be read, like any other read failure
    }
}

}  // namespace korvel::wav
