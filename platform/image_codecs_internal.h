// Shared by the image readers and the writer: byte access, checksums, size limits.
#pragma once

#include "platform/image_codecs.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>

namespace wm::png::detail {

// DEFLATE's length and distance codes and the order of code-length codes, shared by the
// inflater and the compressor.
inline constexpr std::array<std::uint16_t, 29> kLengthBase = {3,  4,  5,  6,  7,  8,  9,  10, 11,  13,  15,  17,  19,  23, 27,
                                                              31, 35, 43, 51, 59, 67, 83, 99, 115, 131, 163, 195, 227, 258};
inline constexpr std::array<std::uint8_t, 29> kLengthExtra = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                                              2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
inline constexpr std::array<std::uint16_t, 30> kDistanceBase = {1,    2,    3,    4,    5,    7,     9,     13,    17,  25,
                                                         33,   49,   65,   97,   129,  193,   257,   385,   513, 769,
                                                         1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
inline constexpr std::array<std::uint8_t, 30> kDistanceExtra = {0, 0, 0, 0, 1, 1, 2, 2,  3,  3,  4,  4,  5,  5,  6,
                                                         6, 7, 7, 8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13};
inline constexpr std::array<std::uint8_t, 19> kCodeLengthOrder = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};

// No side may exceed this, and no image may have more pixels than kMaxPixels (1 GiB of RGBA);
// each reader also refuses sizes its file cannot hold, before allocating.
constexpr std::uint32_t kMaxSide = 1u << 24;
constexpr std::uint64_t kMaxPixels = 1ull << 28;

// DEFLATE cannot expand its input more than about 1032 times (a 258-byte match costs at least
// two bits), so a stream of n bytes never justifies more than this many output bytes.
inline std::uint64_t maxInflatedSize(std::uint64_t compressedBytes) { return compressedBytes * 1032 + 1024; }

inline std::uint16_t readLe16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }
inline std::uint32_t readLe32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}
inline std::uint16_t readBe16(const std::uint8_t* p) { return static_cast<std::uint16_t>((p[0] << 8) | p[1]); }
inline std::uint32_t readBe32(const std::uint8_t* p) {
    return (static_cast<std::uint32_t>(p[0]) << 24) | (static_cast<std::uint32_t>(p[1]) << 16) |
           (static_cast<std::uint32_t>(p[2]) << 8) | static_cast<std::uint32_t>(p[3]);
}
inline std::uint64_t readBe64(const std::uint8_t* p) {
    return (static_cast<std::uint64_t>(readBe32(p)) << 32) | readBe32(p + 4);
}

// 16-bit samples become 8-bit by rounding to the nearest of the 256 levels.
inline std::uint8_t reduce16(std::uint32_t value) { return static_cast<std::uint8_t>((value * 255 + 32767) / 65535); }

// Runs a decode, turning a failed allocation (an image the limits allow but memory does not,
// as on 32-bit Windows) into a refusal, since nothing may throw out of the codecs.
template <typename Decode>
bool decodeWithoutThrowing(const char* format, std::string& error, Decode decode) {
    try {
        return decode();
    } catch (const std::bad_alloc&) {
        error = std::string(format) + ": not enough memory for the image";
        return false;
    }
}

std::uint32_t crc32(const std::uint8_t* data, std::size_t size, std::uint32_t crc = 0);
std::uint32_t adler32(const std::uint8_t* data, std::size_t size, std::uint32_t adler = 1);

// Sizes image for width x height RGBA pixels (zero-filled) after checking the limits above.
// False, with error, when they are exceeded or a side is zero.
bool allocateImage(DecodedImage& image, std::uint64_t width, std::uint64_t height, std::string& error);

// Inflates a zlib stream (header, DEFLATE blocks, Adler-32) into out[0, capacity). Fails when the
// stream is malformed, truncated, or would produce more than capacity bytes; produced is the
// count written on success.
bool inflateZlib(const std::uint8_t* data, std::size_t size, std::uint8_t* out, std::size_t capacity,
                 std::size_t& produced, std::string& error);

// A complete zlib stream of data: LZ77 with hash chains, each block coded with fixed or
// dynamic Huffman codes, whichever is shorter, or stored when neither helps.
std::vector<std::uint8_t> deflateZlib(const std::uint8_t* data, std::size_t size);

}  // namespace wm::png::detail
