// Building WAVE files byte by byte for the codec tests, and the 16-bit rule the codec must
// follow, written out independently of the codec so that tests compare against it.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace wavtest {

using Bytes = std::vector<std::uint8_t>;

inline void putU16(Bytes& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}

inline void putU32(Bytes& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
}

// Byte by byte: GCC 12 at -O3 misreports a range insert into an empty vector as an overflow.
inline void putText(Bytes& out, const char* text) {
    for (; *text; ++text) out.push_back(static_cast<std::uint8_t>(*text));
}

// A chunk: identifier, size, body, and the pad byte after an odd body unless told to omit it.
enum class Pad { Written, Omitted };
inline Bytes chunk(const char* identifier, const Bytes& body, Pad pad = Pad::Written) {
    Bytes out;
    putText(out, identifier);
    putU32(out, static_cast<std::uint32_t>(body.size()));
    out.insert(out.end(), body.begin(), body.end());
    if (body.size() % 2 == 1 && pad == Pad::Written) out.push_back(0);
    return out;
}

// A chunk header whose size field says something other than the body that follows.
inline Bytes chunkWithSize(const char* identifier, std::uint32_t claimedSize, const Bytes& body) {
    Bytes out;
    putText(out, identifier);
    putU32(out, claimedSize);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

// "RIFF", the size field (file size − 8 unless given), "WAVE", then the chunks as they are.
inline Bytes riff(const std::vector<Bytes>& chunks) {
    Bytes out;
    putText(out, "RIFF");
    putU32(out, 0);
    putText(out, "WAVE");
    for (const Bytes& piece : chunks) out.insert(out.end(), piece.begin(), piece.end());
    std::uint32_t size = static_cast<std::uint32_t>(out.size() - 8);
    std::memcpy(out.data() + 4, &size, 4);  // tests run on little-endian machines
    return out;
}

// A plain 16-byte "fmt " body.
inline Bytes formatBody(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate, std::uint16_t bits) {
    Bytes out;
    putU16(out, tag);
    putU16(out, channels);
    putU32(out, rate);
    putU32(out, rate * channels * (bits / 8u));
    putU16(out, static_cast<std::uint16_t>(channels * (bits / 8u)));
    putU16(out, bits);
    return out;
}

// A 40-byte extensible "fmt " body whose sub-format begins with realTag.
inline Bytes extensibleFormatBody(std::uint16_t realTag, std::uint16_t channels, std::uint32_t rate, std::uint16_t bits,
                                  std::uint16_t extensionSize = 22) {
    Bytes out = formatBody(0xFFFE, channels, rate, bits);
    putU16(out, extensionSize);
    putU16(out, bits);
    putU32(out, 0);
    putU16(out, realTag);
    const std::uint8_t guidTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    out.insert(out.end(), guidTail, guidTail + 14);
    return out;
}

inline Bytes fmtChunk(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate, std::uint16_t bits) {
    return chunk("fmt ", formatBody(tag, channels, rate, bits));
}

inline Bytes pcm16Body(const std::vector<std::int16_t>& samples) {
    Bytes out;
    for (std::int16_t sample : samples) putU16(out, static_cast<std::uint16_t>(sample));
    return out;
}

inline Bytes float32Body(const std::vector<float>& samples) {
    Bytes out;
    for (float sample : samples) {
        std::uint32_t bits = 0;
        std::memcpy(&bits, &sample, 4);
        putU32(out, bits);
    }
    return out;
}

inline Bytes float64Body(const std::vector<double>& samples) {
    Bytes out;
    for (double sample : samples) {
        std::uint64_t bits = 0;
        std::memcpy(&bits, &sample, 8);
        putU32(out, static_cast<std::uint32_t>(bits));
        putU32(out, static_cast<std::uint32_t>(bits >> 32));
    }
    return out;
}

// The 16-bit rule: a value v in [−1, 1] (floats clamped first) becomes −32768 at or below −1,
// 32767 at or above 1, otherwise v × 32768 when negative and v × 32767 when not, rounded to
// nearest with halves away from zero (std::round's rounding).
inline std::int16_t expectedSample(double value) {
    if (value <= -1.0) return -32768;
    if (value >= 1.0) return 32767;
    return static_cast<std::int16_t>(std::round(value < 0 ? value * 32768.0 : value * 32767.0));
}

}  // namespace wavtest
