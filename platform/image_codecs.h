// Image files: PNG, BMP, TGA and XCF readers and the PNG writer. Everything decodes to 8-bit
// RGBA, 4 bytes a pixel, row-major, top row first. Nothing here prints or throws: failures are
// a false result with an error text for whoever reports them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Decodes the file at path (PNG, BMP, TGA or XCF, recognised by content, not by name) into
// width, height and rgba. False when the file cannot be read or is not an image we can decode;
// the outputs are then untouched.
bool wm_load_png(const std::string& path, std::int32_t& width, std::int32_t& height, std::vector<std::uint8_t>& rgba);

// Writes width x height RGBA pixels as a PNG file. The bytes go to a temporary file that replaces
// path only once complete, so a failed save leaves an existing file whole. False on bad sizes,
// a null block for a non-empty image, or a failed write.
bool wm_save_png(const std::string& path, std::int32_t width, std::int32_t height, const std::uint8_t* rgba);

// Whether a decoded image needs the shader post-process step before use; never on our platforms.
bool wm_png_requires_postprocess();

namespace wm::png {

struct DecodedImage {
    std::int32_t width = 0;
    std::int32_t height = 0;
    std::vector<std::uint8_t> rgba;  // width * height * 4 bytes
};

enum class ImageFormat { Unknown, Png, Bmp, Tga, Xcf };

// The format the bytes are in, from their signatures. TGA has none: anything whose header
// is a plausible TGA header counts as one, so test it last.
[[nodiscard]] ImageFormat detectImageFormat(const std::uint8_t* data, std::size_t size);

// Decodes whichever format detectImageFormat finds. On failure error names the format and the
// fault ("PNG: CRC mismatch in chunk IDAT") and out is untouched.
[[nodiscard]] bool decodeImage(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error);

// One format each, for tests and fuzzing; same contract as decodeImage.
[[nodiscard]] bool decodePng(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error);
[[nodiscard]] bool decodeBmp(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error);
[[nodiscard]] bool decodeTga(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error);
[[nodiscard]] bool decodeXcf(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error);

// A complete PNG file (8-bit RGBA, non-interlaced) of the pixels; empty when the sizes are
// negative, too large, or rgba is null for a non-empty image. Zero-sized images cannot be
// stored in PNG and are refused.
[[nodiscard]] std::vector<std::uint8_t> encodePng(std::int32_t width, std::int32_t height, const std::uint8_t* rgba);

// zlib streams (RFC 1950/1951), exposed for the tests and the benchmark. decompress fills out
// with at most maxOutput bytes and fails on more, so the caller bounds what a stream may expand to.
[[nodiscard]] bool zlibDecompress(const std::uint8_t* data, std::size_t size, std::size_t maxOutput,
                                  std::vector<std::uint8_t>& out, std::string& error);
[[nodiscard]] std::vector<std::uint8_t> zlibCompress(const std::uint8_t* data, std::size_t size);

}  // namespace wm::png
