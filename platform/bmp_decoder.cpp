// The BMP reader: palette images of 1, 2, 4 and 8 bits, 16-, 24- and 32-bit pixels, BI_RGB and
// BI_BITFIELDS (and BI_ALPHABITFIELDS), bottom-up and top-down rows, every header from the
// 12-byte OS/2 core header to the 124-byte version 5 header. RLE and embedded JPEG/PNG
// compression are refused.
#include "platform/image_codecs_internal.h"

#include <array>
#include <bit>

namespace wm::png {

namespace {

using namespace detail;

enum Compression : std::uint32_t { kRgb = 0, kRle8 = 1, kRle4 = 2, kBitFields = 3, kJpeg = 4, kPng = 5, kAlphaBitFields = 6 };

// A channel given by a bit mask: shifts the bits down and stretches them to 0-255.
struct Channel {
    std::uint32_t mask = 0;
    unsigned shift = 0;
    std::uint32_t maximum = 0;

    static Channel fromMask(std::uint32_t mask) {
        Channel channel;
        if (mask == 0) return channel;
        channel.mask = mask;
        channel.shift = static_cast<unsigned>(std::countr_zero(mask));
        // Masks with holes are read as if contiguous from their lowest bit; the value stays bounded.
        channel.maximum = mask >> channel.shift;
        return channel;
    }
    std::uint8_t extract(std::uint32_t pixel) const {
        if (maximum == 0) return 0;
        const std::uint64_t value = (pixel & mask) >> shift;
        return static_cast<std::uint8_t>((value * 255 + maximum / 2) / maximum);
    }
};

struct BmpHeader {
    std::int64_t width = 0;
    std::int64_t height = 0;  // negative: rows stored top first
    std::uint32_t bitCount = 0;
    std::uint32_t compression = kRgb;
    std::uint32_t coloursUsed = 0;
    std::uint32_t headerSize = 0;
    std::array<std::uint32_t, 4> masks{};  // red, green, blue, alpha
    bool hasMasks = false;
};

bool readInfoHeader(const std::uint8_t* data, std::size_t size, BmpHeader& header, std::string& error) {
    if (size < 18) return error = "file too short for its header", false;
    header.headerSize = readLe32(data + 14);
    const std::uint32_t headerSize = header.headerSize;
    if (headerSize == 12) {
        if (size < 26) return error = "file too short for its header", false;
        header.width = readLe16(data + 18);
        header.height = readLe16(data + 20);
        header.bitCount = readLe16(data + 24);
        return true;
    }
    if (headerSize != 40 && headerSize != 52 && headerSize != 56 && headerSize != 64 && headerSize != 108 && headerSize != 124)
        return error = "unknown header size " + std::to_string(headerSize), false;
    if (size < 14 + std::size_t(headerSize)) return error = "file too short for its header", false;
    header.width = static_cast<std::int32_t>(readLe32(data + 18));
    header.height = static_cast<std::int32_t>(readLe32(data + 22));
    header.bitCount = readLe16(data + 28);
    header.compression = readLe32(data + 30);
    header.coloursUsed = readLe32(data + 46);
    if (headerSize == 64) {
        // OS/2 version 2 headers number their compressions differently; only BI_RGB means the same.
        if (header.compression != kRgb) return error = "compressed OS/2 bitmaps are not supported", false;
        return true;
    }
    if (header.compression == kBitFields || header.compression == kAlphaBitFields) {
        // Masks live in the header from version 2 on, otherwise right after the 40 bytes.
        const std::size_t maskCount = header.compression == kAlphaBitFields || headerSize >= 56 ? 4 : 3;
        if (size < 54 + maskCount * 4) return error = "file too short for its colour masks", false;
        for (std::size_t index = 0; index < maskCount; ++index) header.masks[index] = readLe32(data + 54 + index * 4);
        header.hasMasks = true;
    } else if (headerSize >= 56 && header.compression == kRgb) {
        header.masks[3] = 0;  // a version 4/5 header's alpha mask only counts with bit fields
    }
    return true;
}

bool decodeBmpUnguarded(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error) {
    auto refuse = [&](std::string message) {
        error = "BMP: " + std::move(message);
        return false;
    };
    if (size < 14 || data[0] != 'B' || data[1] != 'M') return refuse("bad signature");
    BmpHeader header;
    std::string message;
    if (!readInfoHeader(data, size, header, message)) return refuse(message);
    if (header.compression == kRle8 || header.compression == kRle4) return refuse("RLE-compressed files are not supported");
    if (header.compression == kJpeg || header.compression == kPng) return refuse("embedded JPEG or PNG data is not supported");
    if (header.compression != kRgb && header.compression != kBitFields && header.compression != kAlphaBitFields)
        return refuse("unknown compression " + std::to_string(header.compression));
    const std::uint32_t bits = header.bitCount;
    if (bits != 1 && bits != 2 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32)
        return refuse("unsupported bit count " + std::to_string(bits));
    if (header.hasMasks && bits != 16 && bits != 32) return refuse("bit fields need 16 or 32 bits a pixel");
    const bool topDown = header.height < 0;
    const std::uint64_t width = header.width < 0 ? 0 : static_cast<std::uint64_t>(header.width);
    const std::uint64_t height = static_cast<std::uint64_t>(topDown ? -header.height : header.height);
    if (width == 0 || height == 0) return refuse("image has no pixels");
    if (width > kMaxSide || height > kMaxSide) return refuse("image is too large");

    // The pixels must all be in the file before anything is allocated for them.
    const std::uint64_t stride = (width * bits + 31) / 32 * 4;
    const std::uint64_t pixelOffset = readLe32(data + 10);
    if (pixelOffset > size || stride * height > size - pixelOffset) return refuse("pixel data runs past the end of the file");

    // Palette: after the header (and after separate masks), 4 bytes an entry, 3 for core headers.
    std::array<std::uint8_t, 1024> palette{};
    for (std::size_t index = 0; index < 256; ++index) palette[index * 4 + 3] = 255;
    if (bits <= 8) {
        const std::size_t entryBytes = header.headerSize == 12 ? 3 : 4;
        std::size_t paletteStart = 14 + std::size_t(header.headerSize);
        if (header.headerSize == 40 && header.hasMasks) paletteStart += 12;
        std::uint64_t entries = header.coloursUsed ? header.coloursUsed : 1u << bits;
        entries = std::min<std::uint64_t>(entries, 1u << bits);
        const std::uint64_t available = paletteStart <= pixelOffset ? (pixelOffset - paletteStart) / entryBytes : 0;
        entries = std::min(entries, available);
        for (std::size_t index = 0; index < entries; ++index) {
            const std::uint8_t* entry = data + paletteStart + index * entryBytes;
            palette[index * 4 + 0] = entry[2];
            palette[index * 4 + 1] = entry[1];
            palette[index * 4 + 2] = entry[0];
        }
    }

    std::array<Channel, 4> channels;
    if (header.hasMasks) {
        for (std::size_t index = 0; index < 4; ++index) channels[index] = Channel::fromMask(header.masks[index]);
    } else if (bits == 16) {
        channels = {Channel::fromMask(0x7C00), Channel::fromMask(0x03E0), Channel::fromMask(0x001F), Channel{}};
    } else {
        channels = {Channel::fromMask(0xFF0000), Channel::fromMask(0xFF00), Channel::fromMask(0xFF), Channel{}};
    }
    // 32-bit BI_RGB files keep a fourth byte that most writers leave zero and some fill with
    // alpha: it counts as alpha only when some pixel has it nonzero.
    bool alphaFromSpareByte = false;
    if (bits == 32 && !header.hasMasks) {
        for (std::uint64_t y = 0; y < height && !alphaFromSpareByte; ++y) {
            const std::uint8_t* row = data + pixelOffset + y * stride;
            for (std::uint64_t x = 0; x < width; ++x)
                if (row[x * 4 + 3]) {
                    alphaFromSpareByte = true;
                    break;
                }
        }
        if (alphaFromSpareByte) channels[3] = Channel::fromMask(0xFF000000u);
    }

    DecodedImage image;
    if (!allocateImage(image, width, height, message)) return refuse(message);
    for (std::uint64_t y = 0; y < height; ++y) {
        const std::uint8_t* row = data + pixelOffset + (topDown ? y : height - 1 - y) * stride;
        std::uint8_t* target = image.rgba.data() + y * width * 4;
        for (std::uint64_t x = 0; x < width; ++x, target += 4) {
            if (bits <= 8) {
                const std::uint64_t bit = x * bits;
                const std::uint32_t index = (row[bit >> 3] >> (8 - bits - (bit & 7))) & ((1u << bits) - 1);
                std::memcpy(target, &palette[index * 4], 4);
            } else if (bits == 24 && !header.hasMasks) {
                target[0] = row[x * 3 + 2];
                target[1] = row[x * 3 + 1];
                target[2] = row[x * 3];
                target[3] = 255;
            } else {
                const std::uint32_t pixel = bits == 16 ? readLe16(row + x * 2) : readLe32(row + x * 4);
                target[0] = channels[0].extract(pixel);
                target[1] = channels[1].extract(pixel);
                target[2] = channels[2].extract(pixel);
                target[3] = channels[3].maximum ? channels[3].extract(pixel) : 255;
            }
        }
    }
    out = std::move(image);
    return true;
}

}  // namespace

bool decodeBmp(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error) {
    return detail::decodeWithoutThrowing("BMP", error, [&] { return decodeBmpUnguarded(data, size, out, error); });
}

}  // namespace wm::png
