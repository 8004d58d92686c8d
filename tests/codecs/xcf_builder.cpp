#include "xcf_builder.h"

#include "platform/image_codecs.h"

#include <algorithm>

namespace codec_test {

namespace {

class Writer {
public:
    void u32(std::uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8) m_bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
    // A pointer slot to fill in later; 8 bytes from version 11 on.
    std::size_t pointerSlot(bool wide) {
        const std::size_t at = m_bytes.size();
        pointer(wide, 0);
        return at;
    }
    void pointer(bool wide, std::uint64_t value) {
        if (wide) u32(static_cast<std::uint32_t>(value >> 32));
        u32(static_cast<std::uint32_t>(value));
    }
    void patch(std::size_t at, bool wide, std::uint64_t value) {
        std::vector<std::uint8_t> saved;
        saved.swap(m_bytes);
        pointer(wide, value);
        std::copy(m_bytes.begin(), m_bytes.end(), saved.begin() + static_cast<std::ptrdiff_t>(at));
        m_bytes.swap(saved);
    }
    void bytes(const std::vector<std::uint8_t>& data) { m_bytes.insert(m_bytes.end(), data.begin(), data.end()); }
    void property(std::uint32_t type, const std::vector<std::uint8_t>& payload) {
        u32(type);
        u32(static_cast<std::uint32_t>(payload.size()));
        bytes(payload);
    }
    std::size_t size() const { return m_bytes.size(); }
    std::vector<std::uint8_t>& result() { return m_bytes; }

private:
    std::vector<std::uint8_t> m_bytes;
};

std::vector<std::uint8_t> be32(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 8),
            static_cast<std::uint8_t>(value)};
}

// Each channel in turn; long forms (127 and 128 with 16-bit counts) for runs over 127 so that
// both kinds of count appear in the tests.
std::vector<std::uint8_t> rleTile(const std::vector<std::uint8_t>& tile, std::size_t bytesPerPixel) {
    std::vector<std::uint8_t> out;
    const std::size_t pixels = tile.size() / bytesPerPixel;
    for (std::size_t channel = 0; channel < bytesPerPixel; ++channel) {
        std::vector<std::uint8_t> values;
        for (std::size_t pixel = 0; pixel < pixels; ++pixel) values.push_back(tile[pixel * bytesPerPixel + channel]);
        std::size_t index = 0;
        while (index < values.size()) {
            std::size_t run = 1;
            while (index + run < values.size() && values[index + run] == values[index]) ++run;
            if (run >= 3) {
                if (run > 127) out.insert(out.end(), {127, static_cast<std::uint8_t>(run >> 8), static_cast<std::uint8_t>(run)});
                else out.push_back(static_cast<std::uint8_t>(run - 1));
                out.push_back(values[index]);
                index += run;
                continue;
            }
            std::size_t literal = 0;
            while (index + literal < values.size()) {
                std::size_t ahead = 1;
                while (index + literal + ahead < values.size() && ahead < 3 &&
                       values[index + literal + ahead] == values[index + literal])
                    ++ahead;
                if (ahead >= 3) break;
                ++literal;
            }
            if (literal > 127) out.insert(out.end(), {128, static_cast<std::uint8_t>(literal >> 8), static_cast<std::uint8_t>(literal)});
            else out.push_back(static_cast<std::uint8_t>(256 - literal));
            out.insert(out.end(), values.begin() + static_cast<std::ptrdiff_t>(index),
                       values.begin() + static_cast<std::ptrdiff_t>(index + literal));
            index += literal;
        }
    }
    return out;
}

constexpr std::uint32_t kBytesPerPixel[6] = {3, 4, 1, 2, 1, 2};

}  // namespace

std::vector<std::uint8_t> buildXcf(const XcfImage& image) {
    Writer writer;
    const bool wide = image.version >= 11;
    std::string magic = "gimp xcf ";
    if (image.version == 0) magic += "file";
    else {
        magic += "v";
        std::string digits = std::to_string(image.version);
        magic += std::string(3 - digits.size(), '0') + digits;
    }
    writer.bytes(std::vector<std::uint8_t>(magic.begin(), magic.end()));
    writer.bytes({0});
    writer.u32(image.width);
    writer.u32(image.height);
    writer.u32(image.baseType);
    if (image.version >= 4) writer.u32(image.precision);
    writer.property(17, {static_cast<std::uint8_t>(image.compression)});  // compression
    if (!image.colourMap.empty()) {
        std::vector<std::uint8_t> payload = be32(static_cast<std::uint32_t>(image.colourMap.size() / 3));
        payload.insert(payload.end(), image.colourMap.begin(), image.colourMap.end());
        writer.property(1, payload);
    }
    writer.property(0, {});
    std::vector<std::size_t> layerSlots;
    for (std::size_t index = 0; index < image.layers.size(); ++index) layerSlots.push_back(writer.pointerSlot(wide));
    writer.pointer(wide, 0);  // end of layers
    writer.pointer(wide, 0);  // no channels

    for (std::size_t index = 0; index < image.layers.size(); ++index) {
        const XcfLayer& layer = image.layers[index];
        writer.patch(layerSlots[index], wide, writer.size());
        writer.u32(layer.width);
        writer.u32(layer.height);
        writer.u32(layer.type);
        const std::string name = "Layer " + std::to_string(index);
        writer.u32(static_cast<std::uint32_t>(name.size() + 1));
        writer.bytes(std::vector<std::uint8_t>(name.begin(), name.end()));
        writer.bytes({0});
        writer.property(6, be32(layer.opacity));
        writer.property(8, be32(layer.visible ? 1 : 0));
        writer.property(15, [&] {
            std::vector<std::uint8_t> offsets = be32(static_cast<std::uint32_t>(layer.offsetX));
            const std::vector<std::uint8_t> y = be32(static_cast<std::uint32_t>(layer.offsetY));
            offsets.insert(offsets.end(), y.begin(), y.end());
            return offsets;
        }());
        writer.property(0, {});
        const std::size_t hierarchySlot = writer.pointerSlot(wide);
        const std::size_t maskSlot = writer.pointerSlot(wide);

        const std::uint32_t bytesPerPixel = kBytesPerPixel[layer.type];
        writer.patch(hierarchySlot, wide, writer.size());
        if (layer.withMask) writer.patch(maskSlot, wide, writer.size());
        writer.u32(layer.width);
        writer.u32(layer.height);
        writer.u32(bytesPerPixel);
        const std::size_t levelSlot = writer.pointerSlot(wide);
        writer.pointer(wide, 0);
        writer.patch(levelSlot, wide, writer.size());
        writer.u32(layer.width);
        writer.u32(layer.height);
        const std::uint32_t columns = (layer.width + 63) / 64, rows = (layer.height + 63) / 64;
        std::vector<std::size_t> tileSlots;
        for (std::uint32_t tile = 0; tile < columns * rows; ++tile) tileSlots.push_back(writer.pointerSlot(wide));
        writer.pointer(wide, 0);
        for (std::uint32_t tile = 0; tile < columns * rows; ++tile) {
            const std::uint32_t x0 = tile % columns * 64, y0 = tile / columns * 64;
            const std::uint32_t tileWidth = std::min(64u, layer.width - x0), tileHeight = std::min(64u, layer.height - y0);
            std::vector<std::uint8_t> data;
            for (std::uint32_t y = 0; y < tileHeight; ++y) {
                const std::size_t start = ((y0 + y) * std::size_t(layer.width) + x0) * bytesPerPixel;
                data.insert(data.end(), layer.pixels.begin() + static_cast<std::ptrdiff_t>(start),
                            layer.pixels.begin() + static_cast<std::ptrdiff_t>(start + tileWidth * bytesPerPixel));
            }
            writer.patch(tileSlots[tile], wide, writer.size());
            if (image.compression == XcfCompression::Rle) writer.bytes(rleTile(data, bytesPerPixel));
            else if (image.compression == XcfCompression::Zlib) writer.bytes(wm::png::zlibCompress(data.data(), data.size()));
            else writer.bytes(data);
        }
    }
    return std::move(writer.result());
}

}  // namespace codec_test
