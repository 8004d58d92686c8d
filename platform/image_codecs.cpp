// Format detection, the shared helpers of the readers, and the file-level entry points.
#include "platform/image_codecs.h"

#include "core/file_io.h"
#include "platform/image_codecs_internal.h"

#include <array>

namespace wm::png {

namespace detail {

namespace {

// Slicing-by-8: eight tables let the CRC take eight bytes per step, which matters because
// every byte of a PNG passes through it.
using CrcTables = std::array<std::array<std::uint32_t, 256>, 8>;

constexpr CrcTables makeCrcTables() {
    CrcTables tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? 0xEDB88320u ^ (crc >> 1) : crc >> 1;
        tables[0][byte] = crc;
    }
    for (std::size_t slice = 1; slice < 8; ++slice)
        for (std::uint32_t byte = 0; byte < 256; ++byte)
            tables[slice][byte] = (tables[slice - 1][byte] >> 8) ^ tables[0][tables[slice - 1][byte] & 0xFF];
    return tables;
}

constexpr CrcTables kCrcTables = makeCrcTables();

}  // namespace

std::uint32_t crc32(const std::uint8_t* data, std::size_t size, std::uint32_t crc) {
    crc = ~crc;
    while (size >= 8) {
        const std::uint32_t low = crc ^ readLe32(data);
        const std::uint32_t high = readLe32(data + 4);
        crc = kCrcTables[7][low & 0xFF] ^ kCrcTables[6][(low >> 8) & 0xFF] ^ kCrcTables[5][(low >> 16) & 0xFF] ^
              kCrcTables[4][low >> 24] ^ kCrcTables[3][high & 0xFF] ^ kCrcTables[2][(high >> 8) & 0xFF] ^
              kCrcTables[1][(high >> 16) & 0xFF] ^ kCrcTables[0][high >> 24];
        data += 8;
        size -= 8;
    }
    while (size-- > 0) crc = kCrcTables[0][(crc ^ *data++) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

bool allocateImage(DecodedImage& image, std::uint64_t width, std::uint64_t height, std::string& error) {
    if (width == 0 || height == 0) {
        error = "image has no pixels";
        return false;
    }
    if (width > kMaxSide || height > kMaxSide || width * height > kMaxPixels) {
        error = "image of " + std::to_string(width) + "x" + std::to_string(height) + " pixels is too large";
        return false;
    }
    image.width = static_cast<std::int32_t>(width);
    image.height = static_cast<std::int32_t>(height);
    image.rgba.assign(static_cast<std::size_t>(width * height * 4), 0);
    return true;
}

}  // namespace detail

ImageFormat detectImageFormat(const std::uint8_t* data, std::size_t size) {
    static constexpr std::uint8_t kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (size >= 8 && std::memcmp(data, kPngSignature, 8) == 0) return ImageFormat::Png;
    if (size >= 9 && std::memcmp(data, "gimp xcf ", 9) == 0) return ImageFormat::Xcf;
    if (size >= 2 && data[0] == 'B' && data[1] == 'M') return ImageFormat::Bmp;
    // TGA: colour-map type 0 or 1 and a known image type are all there is to go on.
    if (size >= 18 && data[1] <= 1) {
        const std::uint8_t type = data[2];
        if (type == 1 || type == 2 || type == 3 || type == 9 || type == 10 || type == 11) return ImageFormat::Tga;
    }
    return ImageFormat::Unknown;
}

bool decodeImage(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error) {
    switch (detectImageFormat(data, size)) {
    case ImageFormat::Png: return decodePng(data, size, out, error);
    case ImageFormat::Bmp: return decodeBmp(data, size, out, error);
    case ImageFormat::Tga: return decodeTga(data, size, out, error);
    case ImageFormat::Xcf: return decodeXcf(data, size, out, error);
    case ImageFormat::Unknown: break;
    }
    error = "not a PNG, BMP, TGA or XCF image";
    return false;
}

std::vector<std::uint8_t> zlibCompress(const std::uint8_t* data, std::size_t size) {
    try {
        return detail::deflateZlib(data, size);
    } catch (const std::bad_alloc&) {
        return {};
    }
}

}  // namespace wm::png

bool wm_load_png(const std::string& path, std::int32_t& width, std::int32_t& height, std::vector<std::uint8_t>& rgba) {
    std::vector<std::uint8_t> bytes;
    try {
        if (!korvel::readFileBytes(path, bytes)) return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    wm::png::DecodedImage image;
    std::string error;
    if (!wm::png::decodeImage(bytes.data(), bytes.size(), image, error)) return false;
    width = image.width;
    height = image.height;
    rgba = std::move(image.rgba);
    return true;
}

bool wm_save_png(const std::string& path, std::int32_t width, std::int32_t height, const std::uint8_t* rgba) {
    std::vector<std::uint8_t> file = wm::png::encodePng(width, height, rgba);
    if (file.empty()) return false;
    std::string error;
    try {
        return korvel::writeFileAtomically(path, file, error);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool wm_png_requires_postprocess() { return false; }
