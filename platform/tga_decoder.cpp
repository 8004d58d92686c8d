// The TGA reader: colour-mapped (8- or 16-bit indices into 15/16/24/32-bit maps), true colour
// (15, 16, 24, 32 bits) and grey (8 bits, or 16 as grey with alpha), each raw or run-length
// encoded, with any of the four origins. Alpha is taken from the pixels only when the
// descriptor announces alpha bits, as the format intends; otherwise pixels are opaque.
#include "platform/image_codecs_internal.h"

#include <array>

namespace wm::png {

namespace {

using namespace detail;

enum ImageType : std::uint8_t { kMapped = 1, kTrueColour = 2, kGrey = 3, kRleMapped = 9, kRleTrueColour = 10, kRleGrey = 11 };

// One pixel of depth bits (little-endian, blue first) as RGBA.
void colourOf(const std::uint8_t* bytes, std::uint32_t depth, bool useAlpha, std::uint8_t* rgba) {
    switch (depth) {
    case 15:
    case 16: {
        const std::uint32_t value = readLe16(bytes);
        rgba[0] = static_cast<std::uint8_t>(((value >> 10) & 31) * 255 / 31);
        rgba[1] = static_cast<std::uint8_t>(((value >> 5) & 31) * 255 / 31);
        rgba[2] = static_cast<std::uint8_t>((value & 31) * 255 / 31);
        rgba[3] = depth == 16 && useAlpha && !(value & 0x8000) ? 0 : 255;
        return;
    }
    case 24:
    case 32:
        rgba[0] = bytes[2];
        rgba[1] = bytes[1];
        rgba[2] = bytes[0];
        rgba[3] = depth == 32 && useAlpha ? bytes[3] : 255;
        return;
    default: return;
    }
}

// Yields the file's pixels in stored order, raw or from run-length packets.
class PixelStream {
public:
    PixelStream(const std::uint8_t* data, const std::uint8_t* end, std::size_t pixelBytes, bool runLength)
        : m_data(data), m_end(end), m_pixelBytes(pixelBytes), m_runLength(runLength) {}

    // The next pixel's bytes, or null when the data ends early.
    const std::uint8_t* next() {
        if (!m_runLength) return take();
        if (m_remaining == 0) {
            if (m_data >= m_end) return nullptr;
            const std::uint8_t packet = *m_data++;
            m_remaining = (packet & 0x7F) + 1u;
            m_repeat = (packet & 0x80) != 0;
            if (m_repeat && !(m_current = take())) return nullptr;
        }
        --m_remaining;
        return m_repeat ? m_current : take();
    }

private:
    const std::uint8_t* take() {
        if (static_cast<std::size_t>(m_end - m_data) < m_pixelBytes) return nullptr;
        const std::uint8_t* pixel = m_data;
        m_data += m_pixelBytes;
        return pixel;
    }

    const std::uint8_t* m_data;
    const std::uint8_t* m_end;
    std::size_t m_pixelBytes;
    bool m_runLength;
    std::uint32_t m_remaining = 0;
    bool m_repeat = false;
    const std::uint8_t* m_current = nullptr;
};

// file -> header(18) id(idLength) colourMap(mapLength entries) pixels [footer, ignored]
bool decodeTgaUnguarded(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error) {
    auto refuse = [&](std::string message) {
        error = "TGA: " + std::move(message);
        return false;
    };
    if (size < 18) return refuse("file too short for its header");
    const std::uint32_t idLength = data[0];
    const std::uint32_t mapType = data[1];
    const std::uint8_t type = data[2];
    const std::uint32_t mapFirst = readLe16(data + 3);
    const std::uint32_t mapLength = readLe16(data + 5);
    const std::uint32_t mapDepth = data[7];
    const std::uint32_t width = readLe16(data + 12);
    const std::uint32_t height = readLe16(data + 14);
    const std::uint32_t depth = data[16];
    const std::uint8_t descriptor = data[17];
    const bool useAlpha = (descriptor & 0x0F) != 0;
    const bool rightToLeft = (descriptor & 0x10) != 0;
    const bool topDown = (descriptor & 0x20) != 0;

    if (mapType > 1) return refuse("unknown colour-map type");
    const bool runLength = type >= 9;
    const std::uint8_t baseType = runLength ? static_cast<std::uint8_t>(type - 8) : type;
    if (baseType != kMapped && baseType != kTrueColour && baseType != kGrey)
        return refuse("unsupported image type " + std::to_string(type));
    if (baseType == kMapped && (mapType != 1 || (depth != 8 && depth != 16))) return refuse("colour-mapped image without a usable map");
    if (baseType == kTrueColour && depth != 15 && depth != 16 && depth != 24 && depth != 32)
        return refuse("unsupported pixel depth " + std::to_string(depth));
    if (baseType == kGrey && depth != 8 && depth != 16) return refuse("unsupported grey depth " + std::to_string(depth));
    if (mapType == 1 && mapDepth != 15 && mapDepth != 16 && mapDepth != 24 && mapDepth != 32)
        return refuse("unsupported colour-map entry size " + std::to_string(mapDepth));
    if (width == 0 || height == 0) return refuse("image has no pixels");

    const std::size_t mapEntryBytes = mapType == 1 ? (mapDepth + 7) / 8 : 0;
    const std::size_t mapStart = 18 + idLength;
    const std::size_t pixelStart = mapStart + mapLength * mapEntryBytes;
    if (pixelStart > size) return refuse("colour map runs past the end of the file");
    const std::size_t pixelBytes = (depth + 7) / 8;
    const std::uint64_t pixels = std::uint64_t(width) * height;
    // Raw data must hold every pixel; a run-length packet gives at most 128 pixels from 2 bytes.
    const std::uint64_t available = size - pixelStart;
    if (runLength ? pixels > available * 64 : pixels * pixelBytes > available)
        return refuse("pixel data runs past the end of the file");

    std::vector<std::uint8_t> map;
    if (baseType == kMapped) {
        map.resize(std::size_t(mapLength) * 4);
        for (std::size_t index = 0; index < mapLength; ++index)
            colourOf(data + mapStart + index * mapEntryBytes, mapDepth, useAlpha || mapDepth == 32, &map[index * 4]);
    }

    DecodedImage image;
    std::string message;
    if (!allocateImage(image, width, height, message)) return refuse(message);
    PixelStream stream(data + pixelStart, data + size, pixelBytes, runLength);
    for (std::uint32_t row = 0; row < height; ++row) {
        const std::uint32_t y = topDown ? row : height - 1 - row;
        for (std::uint32_t column = 0; column < width; ++column) {
            const std::uint8_t* pixel = stream.next();
            if (!pixel) return refuse("pixel data runs past the end of the file");
            const std::uint32_t x = rightToLeft ? width - 1 - column : column;
            std::uint8_t* target = image.rgba.data() + (std::size_t(y) * width + x) * 4;
            if (baseType == kMapped) {
                const std::uint32_t index = (depth == 8 ? pixel[0] : readLe16(pixel)) - mapFirst;
                if (index < mapLength) std::memcpy(target, &map[std::size_t(index) * 4], 4);
                else target[3] = 255;  // outside the map: opaque black
            } else if (baseType == kGrey) {
                target[0] = target[1] = target[2] = pixel[0];
                target[3] = depth == 16 ? pixel[1] : 255;
            } else {
                colourOf(pixel, depth, useAlpha, target);
            }
        }
    }
    out = std::move(image);
    return true;
}

}  // namespace

bool decodeTga(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error) {
    return detail::decodeWithoutThrowing("TGA", error, [&] { return decodeTgaUnguarded(data, size, out, error); });
}

}  // namespace wm::png
