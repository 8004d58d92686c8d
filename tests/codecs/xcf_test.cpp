// XCF: files written by hand (xcf_builder.h) are decoded and compared with ImageMagick's reading
// of the same files, with the compressions giving identical pixels, and with opacity and
// refusals checked directly. ImageMagick 6 ignores layer opacity and reads neither uncompressed
// tiles nor indexed images, so those are checked against known values, the RLE file and the
// same picture stored as RGB instead.
#include "codec_test_support.h"
#include "xcf_builder.h"

#include <gtest/gtest.h>

namespace {

using namespace codec_test;
using Bytes = std::vector<std::uint8_t>;

// A layer whose every pixel comes from colour(x, y).
template <typename Colour>
XcfLayer makeLayer(std::uint32_t width, std::uint32_t height, std::uint32_t type, Colour colour) {
    XcfLayer layer;
    layer.width = width;
    layer.height = height;
    layer.type = type;
    for (std::uint32_t y = 0; y < height; ++y)
        for (std::uint32_t x = 0; x < width; ++x) {
            const Bytes pixel = colour(x, y);
            layer.pixels.insert(layer.pixels.end(), pixel.begin(), pixel.end());
        }
    return layer;
}

std::uint8_t byte(std::uint32_t value) { return static_cast<std::uint8_t>(value); }

// Three layers over a canvas of 130x70 (so tiles are partial at the right and bottom): a full
// background, a smaller layer with varying alpha at an offset that hangs over the edge, and a
// hidden layer on top that must not show.
XcfImage layeredImage(std::uint32_t baseType) {
    XcfImage image;
    image.width = 130;
    image.height = 70;
    image.baseType = baseType;
    const std::uint32_t opaqueType = baseType * 2, alphaType = baseType * 2 + 1;
    if (baseType == 2)
        for (std::uint32_t index = 0; index < 16; ++index)
            image.colourMap.insert(image.colourMap.end(), {byte(index * 16), byte(255 - index * 16), byte(index * 5)});
    auto colour = [baseType](std::uint32_t value) {
        if (baseType == 0) return Bytes{byte(value), byte(value * 3), byte(255 - value)};
        if (baseType == 1) return Bytes{byte(value)};
        return Bytes{byte(value % 16)};
    };
    XcfLayer background = makeLayer(130, 70, opaqueType, [&](std::uint32_t x, std::uint32_t y) {
        return colour(x / 8 * 16 + y / 8);
    });
    XcfLayer middle = makeLayer(90, 40, alphaType, [&](std::uint32_t x, std::uint32_t y) {
        Bytes pixel = colour(x * 2 + y);
        pixel.push_back(byte((x / 4 + y / 4) % 2 ? 255 : x * 2));
        return pixel;
    });
    middle.offsetX = 60;
    middle.offsetY = -5;
    XcfLayer hidden = makeLayer(130, 70, alphaType, [&](std::uint32_t, std::uint32_t) {
        Bytes pixel = colour(7);
        pixel.push_back(255);
        return pixel;
    });
    hidden.visible = false;
    image.layers = {hidden, middle, background};
    return image;
}

bool decode(const Bytes& file, wm::png::DecodedImage& image, std::string& error) {
    return wm::png::decodeImage(file.data(), file.size(), image, error);
}

class XcfAgainstImageMagick : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(XcfAgainstImageMagick, LayersCompositeAsImageMagickFlattensThem) {
    if (!imageMagickAvailable()) GTEST_SKIP() << "ImageMagick's convert is not installed (tools/install-deps.sh installs it)";
    ScratchDirectory scratch;
    const Bytes file = buildXcf(layeredImage(GetParam()));
    writeBytes(scratch.file("layers.xcf"), file);
    wm::png::DecodedImage image;
    std::string error;
    ASSERT_TRUE(decode(file, image, error)) << error;
    EXPECT_EQ(image.width, 130);
    EXPECT_EQ(image.height, 70);
    Bytes reference;
    ASSERT_TRUE(imageMagickRgba(scratch.file("layers.xcf"), reference, "-background none -flatten"));
    // Blending rounds differently in the two decoders; one level either way.
    EXPECT_LE(largestDifference(image.rgba, reference), 1);
}

INSTANTIATE_TEST_SUITE_P(BaseTypes, XcfAgainstImageMagick, ::testing::Values(0u, 1u),
                         [](const auto& info) { return std::string(info.param == 0 ? "rgb" : "grey"); });

// The same picture with every index replaced by its colour.
XcfImage indexedAsRgb(XcfImage image) {
    for (XcfLayer& layer : image.layers) {
        const std::size_t channels = layer.type == 5 ? 2 : 1;
        Bytes pixels;
        for (std::size_t index = 0; index < layer.pixels.size(); index += channels) {
            const std::size_t entry = std::size_t(layer.pixels[index]) * 3;
            pixels.insert(pixels.end(), image.colourMap.begin() + static_cast<std::ptrdiff_t>(entry),
                          image.colourMap.begin() + static_cast<std::ptrdiff_t>(entry + 3));
            if (channels == 2) pixels.push_back(layer.pixels[index + 1]);
        }
        layer.pixels = std::move(pixels);
        layer.type -= 4;
    }
    image.baseType = 0;
    image.colourMap.clear();
    return image;
}

TEST(XcfDecode, IndexedLayersLookUpTheColourMap) {
    const XcfImage indexed = layeredImage(2);
    wm::png::DecodedImage fromIndexed, fromRgb;
    std::string error;
    ASSERT_TRUE(decode(buildXcf(indexed), fromIndexed, error)) << error;
    ASSERT_TRUE(decode(buildXcf(indexedAsRgb(indexed)), fromRgb, error)) << error;
    EXPECT_EQ(fromIndexed.rgba, fromRgb.rgba);
}

TEST(XcfDecode, EveryCompressionAndPointerWidthGivesTheSamePixels) {
    XcfImage image = layeredImage(0);
    wm::png::DecodedImage reference;
    std::string error;
    ASSERT_TRUE(decode(buildXcf(image), reference, error)) << error;
    struct Variant {
        std::uint32_t version;
        XcfCompression compression;
    };
    for (const Variant variant : {Variant{0, XcfCompression::None}, Variant{3, XcfCompression::None},
                                  Variant{8, XcfCompression::Zlib}, Variant{11, XcfCompression::Rle},
                                  Variant{11, XcfCompression::Zlib}}) {
        image.version = variant.version;
        image.compression = variant.compression;
        wm::png::DecodedImage decoded;
        ASSERT_TRUE(decode(buildXcf(image), decoded, error)) << "version " << variant.version << ": " << error;
        EXPECT_EQ(decoded.rgba, reference.rgba) << "version " << variant.version;
    }
}

TEST(XcfDecode, LayerOpacityScalesItsAlpha) {
    // Opaque blue below, opaque red at opacity 128 above: half of each.
    XcfImage image;
    image.width = image.height = 1;
    XcfLayer blue = makeLayer(1, 1, 0, [](std::uint32_t, std::uint32_t) { return Bytes{0, 0, 255}; });
    XcfLayer red = makeLayer(1, 1, 1, [](std::uint32_t, std::uint32_t) { return Bytes{255, 0, 0, 255}; });
    red.opacity = 128;
    image.layers = {red, blue};
    wm::png::DecodedImage decoded;
    std::string error;
    ASSERT_TRUE(decode(buildXcf(image), decoded, error)) << error;
    EXPECT_EQ(decoded.rgba, (Bytes{128, 0, 127, 255}));
    // Over nothing, the layer keeps its colour and takes the opacity as alpha.
    image.layers = {red};
    ASSERT_TRUE(decode(buildXcf(image), decoded, error)) << error;
    EXPECT_EQ(decoded.rgba, (Bytes{255, 0, 0, 128}));
}

TEST(XcfDecode, LinearPrecisionIsShownThroughTheSrgbCurve) {
    XcfImage image;
    image.version = 7;
    image.precision = 100;  // 8-bit linear
    image.width = 3;
    image.height = 1;
    XcfLayer layer;
    layer.width = 3;
    layer.height = 1;
    layer.type = 0;
    layer.pixels = {0, 0, 0, 255, 255, 255, 55, 55, 55};
    image.layers = {layer};
    wm::png::DecodedImage decoded;
    std::string error;
    ASSERT_TRUE(decode(buildXcf(image), decoded, error)) << error;
    // Linear 55/255 is sRGB 128 (middle grey); black and white stay.
    EXPECT_EQ(decoded.rgba, (Bytes{0, 0, 0, 255, 255, 255, 255, 255, 128, 128, 128, 255}));
}

struct Refusal {
    const char* name;
    Bytes file;
    const char* message;
};

Bytes withPrecision(std::uint32_t version, std::uint32_t precision) {
    XcfImage image = layeredImage(0);
    image.version = version;
    image.precision = precision;
    return buildXcf(image);
}

Bytes truncated(std::size_t keep) {
    Bytes file = buildXcf(layeredImage(0));
    file.resize(keep);
    return file;
}

Bytes shortenedBy(std::size_t drop) {
    Bytes file = buildXcf(layeredImage(0));
    file.resize(file.size() - drop);
    return file;
}

Bytes patched(std::size_t at, std::uint8_t value) {
    Bytes file = buildXcf(layeredImage(0));
    file[at] = value;
    return file;
}

class XcfRefusals : public ::testing::TestWithParam<Refusal> {};

TEST_P(XcfRefusals, SayWhy) {
    wm::png::DecodedImage image;
    std::string error;
    EXPECT_FALSE(wm::png::decodeXcf(GetParam().file.data(), GetParam().file.size(), image, error)) << GetParam().name;
    EXPECT_NE(error.find(GetParam().message), std::string::npos) << GetParam().name << ": " << error;
    EXPECT_EQ(error.rfind("XCF: ", 0), 0u) << error;
}

// Header: "gimp xcf file" NUL (14 bytes), width at 14, height at 18, base type at 22, then the
// compression property (type 17 at 26, length 1 at 30, value at 34).
INSTANTIATE_TEST_SUITE_P(
    Files, XcfRefusals,
    ::testing::Values(Refusal{"16-bit precision", withPrecision(7, 200), "8-bit precision"},
                      Refusal{"float precision", withPrecision(7, 600), "8-bit precision"},
                      Refusal{"fractal compression", patched(34, 3), "compression 3"},
                      Refusal{"unknown base type", patched(25, 3), "unknown image type"},
                      Refusal{"canvas beyond the file", patched(14, 0x7F), "larger than the file"},
                      Refusal{"cut in the header", truncated(20), "too short"},
                      Refusal{"cut in the layer list", truncated(50), "runs past the end"},
                      Refusal{"cut in the last tile", shortenedBy(5), "past the end"},
                      Refusal{"bad signature", patched(0, 'G'), "bad signature"}),
    [](const auto& info) {
        std::string name = info.param.name;
        for (char& c : name)
            if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

TEST(XcfDecode, LayerMasksAreRefusedNotIgnored) {
    XcfImage image;
    image.width = image.height = 2;
    image.layers = {makeLayer(2, 2, 1, [](std::uint32_t, std::uint32_t) { return Bytes{1, 2, 3, 4}; })};
    image.layers[0].withMask = true;
    wm::png::DecodedImage decoded;
    std::string error;
    EXPECT_FALSE(decode(buildXcf(image), decoded, error));
    EXPECT_NE(error.find("layer masks are not supported"), std::string::npos) << error;
}

}  // namespace
