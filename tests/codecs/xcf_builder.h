// Writes small XCF files by hand, following GIMP's published description of the format,
// because ImageMagick reads XCF but cannot write it. Used by the XCF tests and for fuzz seeds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace codec_test {

enum class XcfCompression : std::uint8_t { None = 0, Rle = 1, Zlib = 2 };

struct XcfLayer {
    std::uint32_t width = 0, height = 0;
    std::uint32_t type = 1;  // 0 RGB, 1 RGBA, 2 grey, 3 grey+alpha, 4 indexed, 5 indexed+alpha
    std::int32_t offsetX = 0, offsetY = 0;
    std::uint32_t opacity = 255;
    bool visible = true;
    bool withMask = false;  // writes a mask pointer (to the layer's own pixels: readers must refuse it)
    std::vector<std::uint8_t> pixels;  // width * height pixels, interleaved channels
};

struct XcfImage {
    std::uint32_t version = 0;  // 0 writes "file"; otherwise "v" and three digits
    std::uint32_t width = 0, height = 0;
    std::uint32_t baseType = 0;  // 0 RGB, 1 grey, 2 indexed
    std::uint32_t precision = 150;  // written from version 4 on; 150 is 8-bit perceptual
    XcfCompression compression = XcfCompression::Rle;
    std::vector<std::uint8_t> colourMap;  // RGB triples, indexed images only
    std::vector<XcfLayer> layers;         // first is the top layer
};

std::vector<std::uint8_t> buildXcf(const XcfImage& image);

}  // namespace codec_test
