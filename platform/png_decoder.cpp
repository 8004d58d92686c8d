// The PNG reader: every colour type and bit depth, palettes, tRNS transparency and Adam7
// interlacing, decoded to 8-bit RGBA. Gamma (gAMA, sRGB, iCCP) is ignored on purpose: games
// expect the stored values on screen exactly as their painter saw them in an editor, and a
// round trip through our writer must give back the same bytes.
#include "platform/image_codecs_internal.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>

namespace wm::png {

namespace {

using namespace detail;

enum ColourType : std::uint8_t { kGrey = 0, kTrueColour = 2, kIndexed = 3, kGreyAlpha = 4, kTrueColourAlpha = 6 };

struct Header {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint8_t bitDepth = 0;
    std::uint8_t colourType = 0;
    bool interlaced = false;

    std::uint32_t channels() const {
        switch (colourType) {
        case kTrueColour: return 3;
        case kGreyAlpha: return 2;
        case kTrueColourAlpha: return 4;
        default: return 1;
        }
    }
    std::uint32_t bitsPerPixel() const { return channels() * bitDepth; }
    std::uint64_t rowBytes(std::uint64_t pixels) const { return (pixels * bitsPerPixel() + 7) / 8; }
};

struct Transparency {
    bool present = false;
    std::array<std::uint16_t, 3> colour{};  // grey in [0]; red, green, blue for true colour
};

// One pass of Adam7 (or the whole image when not interlaced): which pixels its rows hold.
struct Pass {
    std::uint32_t xStart, yStart, xStep, yStep;
};
constexpr std::array<Pass, 7> kAdam7 = {Pass{0, 0, 8, 8}, Pass{4, 0, 8, 8}, Pass{0, 4, 4, 8}, Pass{2, 0, 4, 4},
                                        Pass{0, 2, 2, 4}, Pass{1, 0, 2, 2}, Pass{0, 1, 1, 2}};
constexpr Pass kWholeImage = {0, 0, 1, 1};

std::uint32_t passExtent(std::uint32_t size, std::uint32_t start, std::uint32_t step) {
    return size > start ? (size - start + step - 1) / step : 0;
}

bool validBitDepth(std::uint8_t colourType, std::uint8_t depth) {
    switch (colourType) {
    case kGrey: return depth == 1 || depth == 2 || depth == 4 || depth == 8 || depth == 16;
    case kIndexed: return depth == 1 || depth == 2 || depth == 4 || depth == 8;
    case kTrueColour:
    case kGreyAlpha:
    case kTrueColourAlpha: return depth == 8 || depth == 16;
    default: return false;
    }
}

std::uint8_t paeth(std::uint8_t left, std::uint8_t above, std::uint8_t upperLeft) {
    const int estimate = left + above - upperLeft;
    const int distanceLeft = std::abs(estimate - left);
    const int distanceAbove = std::abs(estimate - above);
    const int distanceUpperLeft = std::abs(estimate - upperLeft);
    if (distanceLeft <= distanceAbove && distanceLeft <= distanceUpperLeft) return left;
    return distanceAbove <= distanceUpperLeft ? above : upperLeft;
}

// Undoes one row's filter in place; previous is the unfiltered row above (zeros for the first).
bool unfilterRow(std::uint8_t filter, std::uint8_t* row, const std::uint8_t* previous, std::size_t length,
                 std::size_t bytesPerPixel) {
    switch (filter) {
    case 0: return true;
    case 1:
        for (std::size_t index = bytesPerPixel; index < length; ++index)
            row[index] = static_cast<std::uint8_t>(row[index] + row[index - bytesPerPixel]);
        return true;
    case 2:
        for (std::size_t index = 0; index < length; ++index) row[index] = static_cast<std::uint8_t>(row[index] + previous[index]);
        return true;
    case 3:
        for (std::size_t index = 0; index < bytesPerPixel && index < length; ++index)
            row[index] = static_cast<std::uint8_t>(row[index] + (previous[index] >> 1));
        for (std::size_t index = bytesPerPixel; index < length; ++index)
            row[index] = static_cast<std::uint8_t>(row[index] + ((row[index - bytesPerPixel] + previous[index]) >> 1));
        return true;
    case 4:
        for (std::size_t index = 0; index < bytesPerPixel && index < length; ++index)
            row[index] = static_cast<std::uint8_t>(row[index] + previous[index]);
        for (std::size_t index = bytesPerPixel; index < length; ++index)
            row[index] = static_cast<std::uint8_t>(
                row[index] + paeth(row[index - bytesPerPixel], previous[index], previous[index - bytesPerPixel]));
        return true;
    default: return false;
    }
}

class RowConverter {
public:
    RowConverter(const Header& header, const std::array<std::uint8_t, 1024>& palette, const Transparency& transparency)
        : m_header(header), m_palette(palette), m_transparency(transparency) {}

    // Writes count pixels of an unfiltered row to out, step bytes apart.
    void convert(const std::uint8_t* row, std::uint32_t count, std::uint8_t* out, std::size_t step) const;

private:
    std::uint32_t smallSample(const std::uint8_t* row, std::uint32_t index) const {
        const std::uint32_t depth = m_header.bitDepth;
        const std::uint32_t bit = index * depth;
        return (row[bit >> 3] >> (8 - depth - (bit & 7))) & ((1u << depth) - 1);
    }

    const Header& m_header;
    const std::array<std::uint8_t, 1024>& m_palette;
    const Transparency& m_transparency;
};

void RowConverter::convert(const std::uint8_t* row, std::uint32_t count, std::uint8_t* out, std::size_t step) const {
    const std::uint32_t depth = m_header.bitDepth;
    const bool keyed = m_transparency.present;
    switch (m_header.colourType) {
    case kGrey:
        if (depth == 16) {
            for (std::uint32_t x = 0; x < count; ++x, out += step) {
                const std::uint16_t sample = readBe16(row + 2 * x);
                out[0] = out[1] = out[2] = reduce16(sample);
                out[3] = keyed && sample == m_transparency.colour[0] ? 0 : 255;
            }
        } else {
            const std::uint32_t scale = 255 / ((1u << depth) - 1);
            for (std::uint32_t x = 0; x < count; ++x, out += step) {
                const std::uint32_t sample = depth == 8 ? row[x] : smallSample(row, x);
                out[0] = out[1] = out[2] = static_cast<std::uint8_t>(sample * scale);
                out[3] = keyed && sample == m_transparency.colour[0] ? 0 : 255;
            }
        }
        return;
    case kTrueColour:
        if (depth == 16) {
            for (std::uint32_t x = 0; x < count; ++x, out += step, row += 6) {
                const std::uint16_t red = readBe16(row), green = readBe16(row + 2), blue = readBe16(row + 4);
                out[0] = reduce16(red);
                out[1] = reduce16(green);
                out[2] = reduce16(blue);
                out[3] = keyed && red == m_transparency.colour[0] && green == m_transparency.colour[1] &&
                                 blue == m_transparency.colour[2]
                             ? 0
                             : 255;
            }
        } else {
            for (std::uint32_t x = 0; x < count; ++x, out += step, row += 3) {
                out[0] = row[0];
                out[1] = row[1];
                out[2] = row[2];
                out[3] = keyed && row[0] == m_transparency.colour[0] && row[1] == m_transparency.colour[1] &&
                                 row[2] == m_transparency.colour[2]
                             ? 0
                             : 255;
            }
        }
        return;
    case kIndexed:
        for (std::uint32_t x = 0; x < count; ++x, out += step) {
            const std::uint32_t index = depth == 8 ? row[x] : smallSample(row, x);
            std::memcpy(out, &m_palette[index * 4], 4);
        }
        return;
    case kGreyAlpha:
        for (std::uint32_t x = 0; x < count; ++x, out += step) {
            if (depth == 16) {
                out[0] = out[1] = out[2] = reduce16(readBe16(row + 4 * x));
                out[3] = reduce16(readBe16(row + 4 * x + 2));
            } else {
                out[0] = out[1] = out[2] = row[2 * x];
                out[3] = row[2 * x + 1];
            }
        }
        return;
    case kTrueColourAlpha:
        if (depth == 16) {
            for (std::uint32_t x = 0; x < count; ++x, out += step, row += 8)
                for (int channel = 0; channel < 4; ++channel) out[channel] = reduce16(readBe16(row + 2 * channel));
        } else if (step == 4) {
            std::memcpy(out, row, static_cast<std::size_t>(count) * 4);
        } else {
            for (std::uint32_t x = 0; x < count; ++x, out += step, row += 4) std::memcpy(out, row, 4);
        }
        return;
    default: return;
    }
}

struct PngContents {
    Header header;
    std::array<std::uint8_t, 1024> palette{};  // RGBA; entries past the PLTE chunk are opaque black
    std::uint32_t paletteSize = 0;
    Transparency transparency;
    std::vector<std::pair<const std::uint8_t*, std::size_t>> idatChunks;
    std::uint64_t idatBytes = 0;
};

bool chunkNameValid(const std::uint8_t* name) {
    for (int index = 0; index < 4; ++index) {
        const std::uint8_t c = name[index];
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'))) return false;
    }
    return true;
}

bool readHeader(const std::uint8_t* data, std::uint32_t length, Header& header, std::string& error) {
    if (length != 13) return error = "IHDR chunk has the wrong length", false;
    header.width = readBe32(data);
    header.height = readBe32(data + 4);
    header.bitDepth = data[8];
    header.colourType = data[9];
    if (header.width == 0 || header.height == 0 || header.width > 0x7FFFFFFFu || header.height > 0x7FFFFFFFu)
        return error = "invalid image size in IHDR", false;
    if (!validBitDepth(header.colourType, header.bitDepth))
        return error = "invalid colour type " + std::to_string(header.colourType) + " with bit depth " +
                       std::to_string(header.bitDepth),
               false;
    if (data[10] != 0 || data[11] != 0) return error = "unknown compression or filter method", false;
    if (data[12] > 1) return error = "unknown interlace method", false;
    header.interlaced = data[12] == 1;
    return true;
}

bool readTransparency(PngContents& contents, const std::uint8_t* data, std::uint32_t length, std::string& error) {
    const Header& header = contents.header;
    if (header.colourType == kIndexed) {
        if (contents.paletteSize == 0) return error = "tRNS before PLTE", false;
        if (length > contents.paletteSize) return error = "tRNS has more entries than the palette", false;
        for (std::uint32_t index = 0; index < length; ++index) contents.palette[index * 4 + 3] = data[index];
        return true;
    }
    const std::uint32_t samples = header.colourType == kGrey ? 1 : header.colourType == kTrueColour ? 3 : 0;
    if (samples == 0) return true;  // not allowed with an alpha channel; ignored as harmless
    if (length != samples * 2) return error = "tRNS has the wrong length", false;
    contents.transparency.present = true;
    for (std::uint32_t index = 0; index < samples; ++index) contents.transparency.colour[index] = readBe16(data + 2 * index);
    return true;
}

// file -> signature chunk* ; chunk -> length(4) type(4) data(length) crc(4). IHDR comes first,
// IDAT chunks are consecutive, IEND ends the file; unknown critical chunks are refused and
// ancillary ones skipped (after their CRC is checked, as every chunk's is).
bool readChunks(const std::uint8_t* data, std::size_t size, PngContents& contents, std::string& error) {
    std::size_t position = 8;
    bool seenHeader = false, seenPalette = false, idatEnded = false;
    for (;;) {
        if (size - position < 12) return error = "file ends before IEND", false;
        const std::uint32_t length = readBe32(data + position);
        const std::uint8_t* name = data + position + 4;
        if (length > 0x7FFFFFFFu || length > size - position - 12) return error = "chunk runs past the end of the file", false;
        if (!chunkNameValid(name)) return error = "invalid chunk name", false;
        const std::uint8_t* body = name + 4;
        const std::string type(reinterpret_cast<const char*>(name), 4);
        if (crc32(name, length + 4) != readBe32(body + length)) return error = "CRC mismatch in chunk " + type, false;
        position += 12 + static_cast<std::size_t>(length);
        if (!seenHeader && type != "IHDR") return error = "first chunk is not IHDR", false;
        if (type != "IDAT" && !contents.idatChunks.empty()) idatEnded = true;
        if (type == "IHDR") {
            if (seenHeader) return error = "more than one IHDR", false;
            if (!readHeader(body, length, contents.header, error)) return false;
            seenHeader = true;
        } else if (type == "PLTE") {
            const std::uint8_t colourType = contents.header.colourType;
            if (seenPalette || !contents.idatChunks.empty()) return error = "misplaced PLTE", false;
            if (colourType == kGrey || colourType == kGreyAlpha) return error = "PLTE in a grey image", false;
            if (length % 3 != 0 || length == 0 || length / 3 > 256) return error = "PLTE has an invalid length", false;
            contents.paletteSize = length / 3;
            if (colourType == kIndexed && contents.paletteSize > (1u << contents.header.bitDepth))
                return error = "PLTE has more entries than the bit depth allows", false;
            for (std::uint32_t index = 0; index < contents.paletteSize; ++index)
                std::memcpy(&contents.palette[index * 4], body + index * 3, 3);
            seenPalette = true;
        } else if (type == "tRNS") {
            if (!contents.idatChunks.empty()) return error = "tRNS after IDAT", false;
            if (!readTransparency(contents, body, length, error)) return false;
        } else if (type == "IDAT") {
            if (idatEnded) return error = "IDAT chunks are not consecutive", false;
            if (contents.header.colourType == kIndexed && !seenPalette) return error = "indexed image without PLTE", false;
            contents.idatChunks.emplace_back(body, length);
            contents.idatBytes += length;
        } else if (type == "IEND") {
            if (contents.idatChunks.empty()) return error = "no IDAT chunk", false;
            return true;
        } else if (!(name[0] & 0x20)) {
            return error = "unknown critical chunk " + type, false;
        }
    }
}

bool decodePngUnguarded(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error) {
    auto refuse = [&](std::string message) {
        error = "PNG: " + std::move(message);
        return false;
    };
    static constexpr std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (size < 8 || std::memcmp(data, kSignature, 8) != 0) return refuse("bad signature");
    PngContents contents;
    for (std::uint32_t index = 0; index < 256; ++index) contents.palette[index * 4 + 3] = 255;
    std::string message;
    if (!readChunks(data, size, contents, message)) return refuse(message);
    const Header& header = contents.header;
    if (header.width > kMaxSide || header.height > kMaxSide ||
        std::uint64_t(header.width) * header.height > kMaxPixels)
        return refuse("image of " + std::to_string(header.width) + "x" + std::to_string(header.height) + " pixels is too large");

    // Byte size of the filtered rows of every pass, and where each pass starts.
    const Pass* passes = header.interlaced ? kAdam7.data() : &kWholeImage;
    const std::size_t passCount = header.interlaced ? kAdam7.size() : 1;
    std::array<std::uint64_t, 7> passOffset{};
    std::uint64_t rawSize = 0;
    for (std::size_t pass = 0; pass < passCount; ++pass) {
        passOffset[pass] = rawSize;
        const std::uint32_t columns = passExtent(header.width, passes[pass].xStart, passes[pass].xStep);
        const std::uint32_t rows = passExtent(header.height, passes[pass].yStart, passes[pass].yStep);
        if (columns && rows) rawSize += rows * (header.rowBytes(columns) + 1);
    }
    if (rawSize > maxInflatedSize(contents.idatBytes)) return refuse("image data is too short for the image size");
    if (rawSize > SIZE_MAX) return refuse("image is too large for this machine");

    // One IDAT (the usual case) is inflated in place; several are joined first.
    std::vector<std::uint8_t> joined;
    const std::uint8_t* stream = contents.idatChunks.front().first;
    std::size_t streamSize = contents.idatChunks.front().second;
    if (contents.idatChunks.size() > 1) {
        joined.reserve(static_cast<std::size_t>(contents.idatBytes));
        for (const auto& [chunk, length] : contents.idatChunks) joined.insert(joined.end(), chunk, chunk + length);
        stream = joined.data();
        streamSize = joined.size();
    }
    // Not zero-filled: the inflater writes every byte before it is read, or the file is refused.
    const std::unique_ptr<std::uint8_t[]> raw(new std::uint8_t[static_cast<std::size_t>(rawSize)]);
    std::size_t produced = 0;
    if (!inflateZlib(stream, streamSize, raw.get(), static_cast<std::size_t>(rawSize), produced, message))
        return refuse("image data: " + message);
    if (produced != rawSize) return refuse("image data ends early");

    DecodedImage image;
    if (!allocateImage(image, header.width, header.height, message)) return refuse(message);
    const std::size_t bytesPerPixel = std::max<std::size_t>(1, header.bitsPerPixel() / 8);
    const RowConverter converter(header, contents.palette, contents.transparency);
    const std::size_t widthBytes = static_cast<std::size_t>(header.width) * 4;
    std::vector<std::uint8_t> zeroRow(static_cast<std::size_t>(header.rowBytes(header.width)), 0);
    for (std::size_t pass = 0; pass < passCount; ++pass) {
        const Pass& shape = passes[pass];
        const std::uint32_t columns = passExtent(header.width, shape.xStart, shape.xStep);
        const std::uint32_t rows = passExtent(header.height, shape.yStart, shape.yStep);
        if (!columns || !rows) continue;
        const std::size_t rowBytes = static_cast<std::size_t>(header.rowBytes(columns));
        std::uint8_t* row = raw.get() + passOffset[pass];
        const std::uint8_t* previous = zeroRow.data();
        for (std::uint32_t y = 0; y < rows; ++y) {
            if (!unfilterRow(row[0], row + 1, previous, rowBytes, bytesPerPixel))
                return refuse("unknown filter type " + std::to_string(row[0]));
            std::uint8_t* target = image.rgba.data() + (shape.yStart + std::size_t(y) * shape.yStep) * widthBytes +
                                   std::size_t(shape.xStart) * 4;
            converter.convert(row + 1, columns, target, std::size_t(shape.xStep) * 4);
            previous = row + 1;
            row += rowBytes + 1;
        }
    }
    out = std::move(image);
    return true;
}

}  // namespace

bool decodePng(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error) {
    return detail::decodeWithoutThrowing("PNG", error, [&] { return decodePngUnguarded(data, size, out, error); });
}

}  // namespace wm::png
