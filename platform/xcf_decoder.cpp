// The XCF reader (GIMP's own format): the visible layers of an RGB, grey or indexed image of
// 8-bit precision (perceptual, or linear turned into sRGB at the end), composited bottom to top with their opacity, in tiles stored raw, RLE or
// zlib-compressed. Every layer is drawn in normal mode whatever its mode says; group layers
// contribute their children, and their own visibility and opacity are not applied. Layer masks,
// higher precisions and fractal compression are refused with a message saying so.
#include "platform/image_codecs_internal.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>

namespace wm::png {

namespace {

using namespace detail;

constexpr std::uint32_t kTileSide = 64;

enum Property : std::uint32_t {
    kPropEnd = 0, kPropColourMap = 1, kPropOpacity = 6, kPropMode = 7, kPropVisible = 8,
    kPropOffsets = 15, kPropCompression = 17, kPropGroupItem = 29, kPropFloatOpacity = 33,
};
enum Compression : std::uint8_t { kNone = 0, kRle = 1, kZlib = 2 };
enum BaseType : std::uint32_t { kRgb = 0, kGrey = 1, kIndexed = 2 };

// Bounds-checked reading of big-endian fields; the first failure sticks and all later reads
// give zeros, so parse code checks ok() at its decision points rather than after every field.
class Cursor {
public:
    Cursor(const std::uint8_t* data, std::size_t size, std::size_t position = 0)
        : m_data(data), m_size(size), m_position(position), m_ok(position <= size) {}

    std::uint32_t u32() {
        if (!need(4)) return 0;
        const std::uint32_t value = readBe32(m_data + m_position);
        m_position += 4;
        return value;
    }
    std::uint64_t pointer(bool wide) {
        if (!wide) return u32();
        if (!need(8)) return 0;
        const std::uint64_t value = readBe64(m_data + m_position);
        m_position += 8;
        return value;
    }
    const std::uint8_t* bytes(std::size_t count) {
        if (!need(count)) return nullptr;
        const std::uint8_t* start = m_data + m_position;
        m_position += count;
        return start;
    }
    bool ok() const { return m_ok; }
    std::size_t position() const { return m_position; }

private:
    bool need(std::size_t count) {
        if (m_ok && count <= m_size - m_position) return true;
        m_ok = false;
        return false;
    }

    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_position;
    bool m_ok;
};

struct Layer {
    std::uint32_t width = 0, height = 0, type = 0;
    std::int32_t offsetX = 0, offsetY = 0;
    std::uint32_t opacity = 255;
    bool visible = true;
    bool group = false;
    std::uint64_t hierarchy = 0;
    std::uint64_t mask = 0;
};

class XcfReader {
public:
    XcfReader(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    bool read(DecodedImage& image, std::string& error);

private:
    bool fail(std::string message) {
        m_error = std::move(message);
        return false;
    }
    bool readImageProperties(Cursor& cursor);
    bool readLayer(std::uint64_t offset, Layer& layer);
    bool drawLayer(const Layer& layer, DecodedImage& canvas);
    bool readTile(std::uint64_t offset, std::uint64_t end, std::size_t bytes, std::uint32_t bytesPerPixel, std::uint8_t* tile);
    void compositeTile(const Layer& layer, const std::uint8_t* tile, std::uint32_t bytesPerPixel, std::uint32_t tileX,
                       std::uint32_t tileY, std::uint32_t tileWidth, std::uint32_t tileHeight, DecodedImage& canvas) const;

    const std::uint8_t* m_data;
    std::size_t m_size;
    std::string m_error;
    std::uint32_t m_version = 0;
    bool m_widePointers = false;
    bool m_linear = false;  // 8-bit linear-light samples, turned into sRGB once composited
    std::uint32_t m_baseType = kRgb;
    std::uint8_t m_compression = kNone;
    std::vector<std::uint8_t> m_colourMap;  // RGB triples
    // Bytes of layer structure walked so far. A well-formed file never walks a byte twice, so
    // more than the file size means layers share structure, which could repeat work without end.
    std::uint64_t m_walked = 0;
    bool walk(std::uint64_t bytes) {
        m_walked += bytes;
        return m_walked <= m_size;
    }
};

bool XcfReader::readImageProperties(Cursor& cursor) {
    for (;;) {
        const std::uint32_t type = cursor.u32();
        const std::uint32_t length = cursor.u32();
        const std::uint8_t* payload = cursor.bytes(length);
        if (!cursor.ok()) return fail("image properties run past the end of the file");
        if (type == kPropEnd) return true;
        if (type == kPropCompression) {
            if (length < 1) return fail("empty compression property");
            m_compression = payload[0];
            if (m_compression > kZlib) return fail("compression " + std::to_string(m_compression) + " is not supported");
        } else if (type == kPropColourMap) {
            if (length < 4) return fail("colour map property too short");
            const std::uint32_t colours = readBe32(payload);
            if (colours > 256 || 4 + std::uint64_t(colours) * 3 > length) return fail("invalid colour map");
            m_colourMap.assign(payload + 4, payload + 4 + colours * 3);
        }
    }
}

// layer -> width height type name properties hierarchy-pointer mask-pointer
bool XcfReader::readLayer(std::uint64_t offset, Layer& layer) {
    if (offset >= m_size) return fail("layer pointer outside the file");
    Cursor cursor(m_data, m_size, static_cast<std::size_t>(offset));
    layer.width = cursor.u32();
    layer.height = cursor.u32();
    layer.type = cursor.u32();
    const std::uint32_t nameLength = cursor.u32();
    cursor.bytes(nameLength);
    for (;;) {
        const std::uint32_t type = cursor.u32();
        const std::uint32_t length = cursor.u32();
        const std::uint8_t* payload = cursor.bytes(length);
        if (!cursor.ok()) return fail("layer runs past the end of the file");
        if (!walk(8 + std::uint64_t(length))) return fail("layers share their data");
        if (type == kPropEnd) break;
        if (type == kPropOpacity && length >= 4) layer.opacity = std::min<std::uint32_t>(readBe32(payload), 255);
        else if (type == kPropFloatOpacity && length >= 4) {
            const std::uint32_t bits = readBe32(payload);
            float value = 0;
            std::memcpy(&value, &bits, 4);
            if (std::isfinite(value)) layer.opacity = static_cast<std::uint32_t>(std::lround(std::clamp(value, 0.0f, 1.0f) * 255));
        } else if (type == kPropVisible && length >= 4) layer.visible = readBe32(payload) != 0;
        else if (type == kPropOffsets && length >= 8) {
            layer.offsetX = static_cast<std::int32_t>(readBe32(payload));
            layer.offsetY = static_cast<std::int32_t>(readBe32(payload + 4));
        } else if (type == kPropGroupItem) layer.group = true;
    }
    layer.hierarchy = cursor.pointer(m_widePointers);
    layer.mask = cursor.pointer(m_widePointers);
    if (!cursor.ok()) return fail("layer runs past the end of the file");
    return true;
}

// RLE tiles hold each channel in turn as runs: n < 127 repeats the next byte n+1 times, 127
// repeats it a 16-bit count of times, 128 copies a 16-bit count of bytes, n > 128 copies 256-n.
bool XcfReader::readTile(std::uint64_t offset, std::uint64_t end, std::size_t bytes, std::uint32_t bytesPerPixel,
                         std::uint8_t* tile) {
    if (offset >= m_size || end > m_size || end < offset) return fail("tile outside the file");
    const std::uint8_t* data = m_data + offset;
    const std::size_t available = static_cast<std::size_t>(end - offset);
    if (m_compression == kNone) {
        if (available < bytes) return fail("tile data runs past the end of the file");
        std::memcpy(tile, data, bytes);
        return true;
    }
    if (m_compression == kZlib) {
        std::size_t produced = 0;
        std::string message;
        if (!inflateZlib(data, available, tile, bytes, produced, message)) return fail("tile data: " + message);
        if (produced != bytes) return fail("tile data ends early");
        return true;
    }
    const std::size_t pixels = bytes / bytesPerPixel;
    std::size_t position = 0;
    for (std::uint32_t channel = 0; channel < bytesPerPixel; ++channel) {
        std::size_t written = 0;
        while (written < pixels) {
            if (position >= available) return fail("RLE tile runs past the end of the file");
            std::size_t count = data[position++];
            const bool literal = count >= 128;
            if (count == 127 || count == 128) {
                if (available - position < 2) return fail("RLE tile runs past the end of the file");
                count = std::size_t(data[position]) << 8 | data[position + 1];
                position += 2;
            } else {
                count = literal ? 256 - count : count + 1;
            }
            if (count > pixels - written) return fail("RLE run overflows its tile");
            if (literal && available - position < count) return fail("RLE tile runs past the end of the file");
            if (!literal && position >= available) return fail("RLE tile runs past the end of the file");
            for (std::size_t index = 0; index < count; ++index) {
                tile[(written + index) * bytesPerPixel + channel] = literal ? data[position + index] : data[position];
            }
            position += literal ? count : 1;
            written += count;
        }
    }
    return true;
}

void XcfReader::compositeTile(const Layer& layer, const std::uint8_t* tile, std::uint32_t bytesPerPixel,
                              std::uint32_t tileX, std::uint32_t tileY, std::uint32_t tileWidth, std::uint32_t tileHeight,
                              DecodedImage& canvas) const {
    const bool hasAlpha = layer.type == 1 || layer.type == 3 || layer.type == 5;
    for (std::uint32_t row = 0; row < tileHeight; ++row) {
        const std::int64_t y = std::int64_t(layer.offsetY) + tileY + row;
        if (y < 0 || y >= canvas.height) continue;
        for (std::uint32_t column = 0; column < tileWidth; ++column) {
            const std::int64_t x = std::int64_t(layer.offsetX) + tileX + column;
            if (x < 0 || x >= canvas.width) continue;
            const std::uint8_t* pixel = tile + (std::size_t(row) * tileWidth + column) * bytesPerPixel;
            std::uint8_t colour[3];
            if (m_baseType == kRgb) {
                std::memcpy(colour, pixel, 3);
            } else if (m_baseType == kGrey) {
                colour[0] = colour[1] = colour[2] = pixel[0];
            } else {
                const std::size_t index = std::size_t(pixel[0]) * 3;
                if (index + 3 <= m_colourMap.size()) std::memcpy(colour, &m_colourMap[index], 3);
                else colour[0] = colour[1] = colour[2] = 0;
            }
            const std::uint32_t sourceAlpha = hasAlpha ? pixel[bytesPerPixel - 1] : 255;
            // Normal mode over straight (unpremultiplied) alpha.
            const std::uint32_t alpha = (sourceAlpha * layer.opacity + 127) / 255;
            if (alpha == 0) continue;
            std::uint8_t* target = canvas.rgba.data() + (std::size_t(y) * std::size_t(canvas.width) + std::size_t(x)) * 4;
            const std::uint32_t below = target[3] * (255 - alpha);  // scaled by 255
            const std::uint32_t total = alpha * 255 + below;      // result alpha, scaled by 255
            for (int channel = 0; channel < 3; ++channel)
                target[channel] = static_cast<std::uint8_t>((colour[channel] * alpha * 255 + target[channel] * below + total / 2) / total);
            target[3] = static_cast<std::uint8_t>((total + 127) / 255);
        }
    }
}

// hierarchy -> width height bpp level-pointer*; level -> width height tile-pointer* 0
bool XcfReader::drawLayer(const Layer& layer, DecodedImage& canvas) {
    static constexpr std::array<std::uint32_t, 6> kLayerBytesPerPixel = {3, 4, 1, 2, 1, 2};
    if (layer.type >= kLayerBytesPerPixel.size()) return fail("unknown layer type " + std::to_string(layer.type));
    const std::uint32_t expectedBase = layer.type / 2;
    if (expectedBase != m_baseType) return fail("layer type does not match the image type");
    if (layer.mask != 0) return fail("layer masks are not supported");
    if (layer.width == 0 || layer.height == 0) return true;
    Cursor hierarchy(m_data, m_size, layer.hierarchy < m_size ? static_cast<std::size_t>(layer.hierarchy) : m_size);
    const std::uint32_t width = hierarchy.u32();
    const std::uint32_t height = hierarchy.u32();
    const std::uint32_t bytesPerPixel = hierarchy.u32();
    const std::uint64_t levelOffset = hierarchy.pointer(m_widePointers);
    if (!hierarchy.ok() || layer.hierarchy >= m_size) return fail("layer pixels run past the end of the file");
    if (width != layer.width || height != layer.height || bytesPerPixel != kLayerBytesPerPixel[layer.type])
        return fail("layer hierarchy does not match its layer");
    Cursor level(m_data, m_size, levelOffset < m_size ? static_cast<std::size_t>(levelOffset) : m_size);
    if (level.u32() != width || level.u32() != height || levelOffset >= m_size) return fail("invalid layer level");
    const std::uint64_t columns = (width + kTileSide - 1) / kTileSide;
    const std::uint64_t rows = (height + kTileSide - 1) / kTileSide;
    // Every tile needs a pointer in the file: check that before walking them.
    if (columns * rows > (m_size - level.position()) / (m_widePointers ? 8 : 4)) return fail("layer has more tiles than the file holds");
    if (!walk(columns * rows * (m_widePointers ? 8 : 4))) return fail("layers share their data");
    std::vector<std::uint64_t> tiles(static_cast<std::size_t>(columns * rows) + 1);
    for (std::uint64_t& tile : tiles) tile = level.pointer(m_widePointers);
    if (!level.ok()) return fail("tile pointers run past the end of the file");
    std::array<std::uint8_t, kTileSide * kTileSide * 4> tile{};
    for (std::uint64_t index = 0; index < columns * rows; ++index) {
        const std::uint32_t tileX = static_cast<std::uint32_t>(index % columns) * kTileSide;
        const std::uint32_t tileY = static_cast<std::uint32_t>(index / columns) * kTileSide;
        const std::uint32_t tileWidth = std::min(kTileSide, width - tileX);
        const std::uint32_t tileHeight = std::min(kTileSide, height - tileY);
        // A tile ends where the next begins; the last one (followed by 0) may run to the end of the file.
        const std::uint64_t next = tiles[index + 1];
        const std::uint64_t end = next > tiles[index] ? std::min<std::uint64_t>(next, m_size) : m_size;
        if (!readTile(tiles[index], end, std::size_t(tileWidth) * tileHeight * bytesPerPixel, bytesPerPixel, tile.data()))
            return false;
        compositeTile(layer, tile.data(), bytesPerPixel, tileX, tileY, tileWidth, tileHeight, canvas);
    }
    return true;
}

// file -> "gimp xcf " version NUL width height base-type [precision] properties
//         layer-pointer* 0 channel-pointer* 0
bool XcfReader::read(DecodedImage& image, std::string& error) {
    auto failed = [&] {
        error = "XCF: " + m_error;
        return false;
    };
    if (m_size < 14 || std::memcmp(m_data, "gimp xcf ", 9) != 0 || m_data[13] != 0) return fail("bad signature"), failed();
    if (std::memcmp(m_data + 9, "file", 4) == 0) m_version = 0;
    else if (m_data[9] == 'v' && std::isdigit(m_data[10]) && std::isdigit(m_data[11]) && std::isdigit(m_data[12]))
        m_version = static_cast<std::uint32_t>((m_data[10] - '0') * 100 + (m_data[11] - '0') * 10 + (m_data[12] - '0'));
    else return fail("unknown version"), failed();
    m_widePointers = m_version >= 11;
    Cursor cursor(m_data, m_size, 14);
    const std::uint32_t width = cursor.u32();
    const std::uint32_t height = cursor.u32();
    m_baseType = cursor.u32();
    if (m_version >= 4) {
        const std::uint32_t precision = cursor.u32();
        const bool eightBit = m_version == 4 ? precision == 0 : precision == 100 || precision == 150;
        if (!eightBit) return fail("only 8-bit precision is supported (precision " + std::to_string(precision) + ")"), failed();
        m_linear = m_version > 4 && precision == 100;
    }
    if (!cursor.ok()) return fail("file too short for its header"), failed();
    if (m_baseType > kIndexed) return fail("unknown image type " + std::to_string(m_baseType)), failed();
    // A canvas needs a 4-byte tile pointer for every 64x64 pixels of layer covering it, so a
    // file cannot justify a canvas much larger than that; refusing it caps what we allocate.
    if (std::uint64_t(width) * height > std::uint64_t(m_size) * kTileSide * kTileSide)
        return fail("canvas is larger than the file can describe"), failed();
    if (!readImageProperties(cursor)) return failed();
    std::vector<std::uint64_t> layerOffsets;
    for (;;) {
        const std::uint64_t offset = cursor.pointer(m_widePointers);
        if (!cursor.ok()) return fail("layer list runs past the end of the file"), failed();
        if (offset == 0) break;
        layerOffsets.push_back(offset);
    }
    DecodedImage canvas;
    if (!allocateImage(canvas, width, height, m_error)) return failed();
    // The first layer in the list is the top one: draw from the end.
    for (auto offset = layerOffsets.rbegin(); offset != layerOffsets.rend(); ++offset) {
        Layer layer;
        if (!readLayer(*offset, layer)) return failed();
        if (!layer.visible || layer.group) continue;
        if (!drawLayer(layer, canvas)) return failed();
    }
    if (m_linear) {
        // GIMP blends linear images in linear light and shows them through the sRGB curve.
        std::array<std::uint8_t, 256> toSrgb{};
        for (int value = 0; value < 256; ++value) {
            const double linear = value / 255.0;
            const double encoded = linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055;
            toSrgb[static_cast<std::size_t>(value)] = static_cast<std::uint8_t>(std::lround(encoded * 255));
        }
        for (std::size_t index = 0; index < canvas.rgba.size(); index += 4)
            for (std::size_t channel = 0; channel < 3; ++channel) canvas.rgba[index + channel] = toSrgb[canvas.rgba[index + channel]];
    }
    image = std::move(canvas);
    return true;
}

}  // namespace

bool decodeXcf(const std::uint8_t* data, std::size_t size, DecodedImage& out, std::string& error) {
    return decodeWithoutThrowing("XCF", error, [&] { return XcfReader(data, size).read(out, error); });
}

}  // namespace wm::png
