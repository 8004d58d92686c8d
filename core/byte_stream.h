// Little-endian byte writing and bounds-checked reading for the interpreter's binary files
// (bytecode images and state files). A reader never reads past its end and never believes a
// count that the remaining bytes could not hold.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace korvel {

class ByteWriter {
public:
    void u8(std::uint8_t value) { m_bytes.push_back(value); }
    void u32(std::uint32_t value) {
        for (int i = 0; i < 4; ++i) m_bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    void u64(std::uint64_t value) {
        for (int i = 0; i < 8; ++i) m_bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    // Unsigned LEB128.
    void varint(std::uint64_t value) {
        while (value >= 0x80) {
            m_bytes.push_back(static_cast<std::uint8_t>(value | 0x80));
            value >>= 7;
        }
        m_bytes.push_back(static_cast<std::uint8_t>(value));
    }
    // Signed values that are mostly small or -1, zigzag-encoded.
    void svarint(std::int64_t value) {
        varint((static_cast<std::uint64_t>(value) << 1) ^ static_cast<std::uint64_t>(value >> 63));
    }
    void text(std::string_view value) {
        varint(value.size());
        raw(value.data(), value.size());
    }
    void raw(const void* data, std::size_t size) {
        if (size == 0) return;
        std::size_t at = m_bytes.size();
        m_bytes.resize(at + size);
        std::memcpy(m_bytes.data() + at, data, size);
    }
    std::vector<std::uint8_t>& bytes() { return m_bytes; }

private:
    std::vector<std::uint8_t> m_bytes;
};

// Thrown by ByteReader when the data ends early or holds an impossible value.
struct ByteReadError {
    std::string message;
};

class ByteReader {
public:
    ByteReader(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

    std::size_t position() const { return m_position; }
    std::size_t remaining() const { return m_size - m_position; }
    bool atEnd() const { return m_position == m_size; }

    std::uint8_t u8() {
        need(1);
        return m_data[m_position++];
    }
    std::uint32_t u32() {
        need(4);
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i) value |= static_cast<std::uint32_t>(m_data[m_position++]) << (8 * i);
        return value;
    }
    std::uint64_t u64() {
        need(8);
        std::uint64_t value = 0;
        for (int i = 0; i < 8; ++i) value |= static_cast<std::uint64_t>(m_data[m_position++]) << (8 * i);
        return value;
    }
    // Most numbers in these files are below 128: that case is inline, the rest out of line.
    std::uint64_t varint() {
        if (m_position < m_size && m_data[m_position] < 0x80) [[likely]]
            return m_data[m_position++];
        return longVarint();
    }
    std::int64_t svarint() {
        std::uint64_t raw = varint();
        return static_cast<std::int64_t>((raw >> 1) ^ (~(raw & 1) + 1));
    }
    // A signed value that must lie in [low, high].
    std::int32_t ranged(std::int64_t low, std::int64_t high, const char* what) {
        std::int64_t value = svarint();
        if (value < low || value > high) [[unlikely]]
            outOfRange(what);
        return static_cast<std::int32_t>(value);
    }
    // A count of items each taking at least minimumBytes: more than the rest could hold is a lie.
    std::size_t count(std::size_t minimumBytes, const char* what) {
        std::uint64_t value = varint();
        if (minimumBytes == 0) minimumBytes = 1;
        if (value > remaining() / minimumBytes) [[unlikely]]
            impossibleCount(what);
        return static_cast<std::size_t>(value);
    }
    std::string text() { return std::string(textView()); }
    // A text as a view of the reader's bytes, valid while they are.
    std::string_view textView() {
        std::size_t length = count(1, "text length");
        std::string_view value(reinterpret_cast<const char*>(m_data + m_position), length);
        m_position += length;
        return value;
    }
    // The next size bytes as a view of the reader's data.
    std::string_view view(std::size_t size) {
        need(size);
        std::string_view value(reinterpret_cast<const char*>(m_data + m_position), size);
        m_position += size;
        return value;
    }
    void raw(void* out, std::size_t size) {
        need(size);
        std::memcpy(out, m_data + m_position, size);
        m_position += size;
    }

private:
    [[gnu::noinline]] std::uint64_t longVarint() {
        // A bounds check per number rather than per byte when the longest encoding fits.
        if (m_size - m_position >= 10) {
            std::uint64_t value = 0;
            for (int shift = 0; shift < 64; shift += 7) {
                std::uint8_t byte = m_data[m_position++];
                value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
                if (!(byte & 0x80)) return value;
            }
            throw ByteReadError{"malformed number"};
        }
        std::uint64_t value = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            std::uint8_t byte = u8();
            value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
            if (!(byte & 0x80)) return value;
        }
        throw ByteReadError{"malformed number"};
    }
    [[noreturn, gnu::noinline]] static void impossibleCount(const char* what) {
        throw ByteReadError{std::string("impossible ") + what + " count"};
    }
    [[noreturn, gnu::noinline]] static void outOfRange(const char* what) {
        throw ByteReadError{std::string(what) + " out of range"};
    }

    void need(std::size_t bytes) const {
        if (bytes > m_size - m_position) throw ByteReadError{"truncated"};
    }

    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_position = 0;
};

// A checksum over a byte range that catches damaged files before anything is believed: four
// FNV-1a lanes over 32-bit words (so it runs at memory speed), the tail byte by byte, folded.
inline std::uint32_t byteChecksum(const std::uint8_t* data, std::size_t size) {
    std::uint32_t lanes[4] = {2166136261u, 2166136261u ^ 1u, 2166136261u ^ 2u, 2166136261u ^ 3u};
    std::size_t i = 0;
    for (; i + 16 <= size; i += 16) {
        for (int lane = 0; lane < 4; ++lane) {
            std::uint32_t word = static_cast<std::uint32_t>(data[i + 4 * lane]) |
                                 static_cast<std::uint32_t>(data[i + 4 * lane + 1]) << 8 |
                                 static_cast<std::uint32_t>(data[i + 4 * lane + 2]) << 16 |
                                 static_cast<std::uint32_t>(data[i + 4 * lane + 3]) << 24;
            lanes[lane] = (lanes[lane] ^ word) * 16777619u;
        }
    }
    std::uint32_t hash = lanes[0] ^ (lanes[1] * 31u) ^ (lanes[2] * 961u) ^ (lanes[3] * 29791u);
    for (; i < size; ++i) hash = (hash ^ data[i]) * 16777619u;
    return (hash ^ static_cast<std::uint32_t>(size)) * 16777619u;
}

// The files' common header: magic (4 bytes), u32 format version, u32 checksum of the rest.
constexpr std::size_t kFileHeaderSize = 12;

// Writes the checksum of everything after the header into a finished file's header.
inline void sealChecksum(std::vector<std::uint8_t>& bytes) {
    if (bytes.size() < kFileHeaderSize) return;
    std::uint32_t sum = byteChecksum(bytes.data() + kFileHeaderSize, bytes.size() - kFileHeaderSize);
    for (int i = 0; i < 4; ++i) bytes[8 + i] = static_cast<std::uint8_t>(sum >> (8 * i));
}

}  // namespace korvel
