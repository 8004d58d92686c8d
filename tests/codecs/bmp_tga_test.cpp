// BMP and TGA: ImageMagick writes each variant from one picture, and our decode must equal
// ImageMagick's own decode of the same file. TGA references are read with -auto-orient, since
// ImageMagick otherwise hands rows out in stored order whatever the origin says. Variants
// ImageMagick cannot write (top-down BMP) are made by rewriting its files by hand.
#include "codec_test_support.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace codec_test;
using Bytes = std::vector<std::uint8_t>;

struct Variant {
    const char* name;
    const char* options;  // convert options between the source picture and the output
    const char* format;   // ImageMagick's name of the output format
    int tolerance;        // 1 where 5- and 6-bit channels are stretched with different rounding
};

class ImageMagickVariants : public ::testing::TestWithParam<Variant> {
protected:
    void SetUp() override {
        if (!imageMagickAvailable()) GTEST_SKIP() << "ImageMagick's convert is not installed (tools/install-deps.sh installs it)";
        // 37 x 23: odd sizes exercise row padding; the gradient's alpha gives 32-bit files real alpha.
        const Bytes pixels = testPattern(37, 23, 11);
        writeBytes(m_scratch.file("source.png"), wm::png::encodePng(37, 23, pixels.data()));
    }
    ScratchDirectory m_scratch;
};

TEST_P(ImageMagickVariants, DecodeAsImageMagickDoes) {
    const Variant& variant = GetParam();
    // TGA has no signature: ImageMagick reads it back by the file's extension.
    const std::string file = variant.format[0] == 'T' ? "output.tga" : "output.bmp";
    std::string arguments = quoted(m_scratch.file("source.png"));
    arguments.append(" ").append(variant.options).append(" ").append(variant.format).append(":");
    arguments += quoted(m_scratch.file(file));
    ASSERT_TRUE(imageMagickConvert(arguments)) << variant.name;
    const Bytes bytes = readBytes(m_scratch.file(file));
    wm::png::DecodedImage image;
    std::string error;
    ASSERT_TRUE(wm::png::decodeImage(bytes.data(), bytes.size(), image, error)) << variant.name << ": " << error;
    EXPECT_EQ(image.width, 37);
    EXPECT_EQ(image.height, 23);
    Bytes reference;
    ASSERT_TRUE(imageMagickRgba(m_scratch.file(file), reference, "-auto-orient"));
    EXPECT_LE(largestDifference(image.rgba, reference), variant.tolerance) << variant.name;
}

template <typename Case>
std::string variantName(const ::testing::TestParamInfo<Case>& info) {
    std::string name = info.param.name;
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(
    Bmp, ImageMagickVariants,
    ::testing::Values(Variant{"24-bit", "-alpha off -type TrueColor", "BMP3", 0},
                      Variant{"32-bit bit fields with alpha", "-type TrueColorAlpha", "BMP", 0},
                      Variant{"8-bit palette", "-alpha off -colors 200 -type Palette -compress None", "BMP3", 0},
                      Variant{"4-bit palette", "-alpha off -colors 12 -type Palette -compress None", "BMP3", 0},
                      Variant{"1-bit", "-alpha off -type Bilevel", "BMP3", 0},
                      Variant{"16-bit 565 in a version 5 header", "-alpha off -define bmp:subtype=RGB565", "BMP", 1},
                      Variant{"16-bit 555 bit fields after a 40-byte header", "-alpha off -define bmp:subtype=RGB555",
                              "BMP3", 1},
                      Variant{"OS/2 core header 24-bit", "-alpha off -type TrueColor", "BMP2", 0},
                      Variant{"OS/2 core header palette", "-alpha off -colors 100 -type Palette", "BMP2", 0}),
    variantName<Variant>);

INSTANTIATE_TEST_SUITE_P(
    Tga, ImageMagickVariants,
    ::testing::Values(Variant{"true colour", "-alpha off -type TrueColor -compress None", "TGA", 0},
                      Variant{"true colour RLE", "-alpha off -type TrueColor -compress RLE", "TGA", 0},
                      Variant{"alpha", "-type TrueColorAlpha -compress None", "TGA", 0},
                      Variant{"alpha RLE", "-type TrueColorAlpha -compress RLE", "TGA", 0},
                      Variant{"grey", "-alpha off -type Grayscale -compress None", "TGA", 0},
                      Variant{"grey RLE", "-alpha off -type Grayscale -compress RLE", "TGA", 0},
                      Variant{"colour-mapped", "-alpha off -colors 200 -type Palette -compress None", "TGA", 0},
                      Variant{"colour-mapped RLE", "-alpha off -colors 200 -type Palette -compress RLE", "TGA", 0},
                      Variant{"top-left origin", "-type TrueColorAlpha -orient TopLeft", "TGA", 0},
                      Variant{"top-right origin", "-alpha off -type TrueColor -orient TopRight", "TGA", 0},
                      Variant{"bottom-right origin RLE", "-alpha off -type TrueColor -orient BottomRight -compress RLE",
                              "TGA", 0}),
    variantName<Variant>);

TEST(BmpDecode, TopDownRowsAreTheSameImage) {
    if (!imageMagickAvailable()) GTEST_SKIP() << "ImageMagick's convert is not installed";
    ScratchDirectory scratch;
    const Bytes pixels = testPattern(13, 9, 5);
    writeBytes(scratch.file("source.png"), wm::png::encodePng(13, 9, pixels.data()));
    std::string arguments = quoted(scratch.file("source.png"));
    arguments += " -alpha off BMP3:";
    arguments += quoted(scratch.file("a.bmp"));
    ASSERT_TRUE(imageMagickConvert(arguments));
    const Bytes bottomUp = readBytes(scratch.file("a.bmp"));
    // Negate the height (offset 22) and reverse the rows (40 bytes each: 13 * 3 padded to 4).
    Bytes topDown = bottomUp;
    const std::size_t offset = topDown[10], stride = 40;
    ASSERT_EQ(topDown.size(), offset + stride * 9);
    const std::int32_t negative = -9;
    std::memcpy(&topDown[22], &negative, 4);
    for (std::size_t row = 0; row < 9; ++row)
        std::copy_n(&bottomUp[offset + row * stride], stride, &topDown[offset + (8 - row) * stride]);
    wm::png::DecodedImage fromBottomUp, fromTopDown;
    std::string error;
    ASSERT_TRUE(wm::png::decodeBmp(bottomUp.data(), bottomUp.size(), fromBottomUp, error)) << error;
    ASSERT_TRUE(wm::png::decodeBmp(topDown.data(), topDown.size(), fromTopDown, error)) << error;
    EXPECT_EQ(fromTopDown.rgba, fromBottomUp.rgba);
    EXPECT_EQ(fromTopDown.height, 9);
}

struct Refusal {
    const char* name;
    Bytes file;
    const char* message;
};

// A 2x2 24-bit BMP: file header, 40-byte info header, two rows of 8 bytes (6 + padding).
Bytes smallBmp() {
    Bytes file = {'B', 'M', 70, 0, 0, 0, 0, 0, 0, 0, 54, 0, 0, 0,     // file header; pixels at 54
                  40, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 1, 0, 24, 0,  // header size, 2 x 2, 1 plane, 24 bits
                  0, 0, 0, 0, 16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    file.resize(70, 0x80);
    return file;
}

Bytes bmpWith(std::size_t at, std::vector<std::uint8_t> bytes, std::size_t size = 70) {
    Bytes file = smallBmp();
    std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<std::ptrdiff_t>(at));
    file.resize(size);
    return file;
}

// An 18-byte TGA header for a 2x2 24-bit true-colour image, then the pixels.
Bytes smallTga(std::uint8_t type = 2, std::size_t pixelBytes = 12, const Bytes& pixels = {}) {
    Bytes file = {0, 0, type, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 2, 0, 24, 0};
    file.resize(18 + pixelBytes, 0x40);
    for (std::size_t index = 0; index < pixels.size() && index < pixelBytes; ++index) file[18 + index] = pixels[index];
    return file;
}

class Refusals : public ::testing::TestWithParam<Refusal> {};

TEST_P(Refusals, SayWhyAndLeaveTheOutputAlone) {
    wm::png::DecodedImage image;
    std::string error;
    EXPECT_FALSE(wm::png::decodeImage(GetParam().file.data(), GetParam().file.size(), image, error)) << GetParam().name;
    EXPECT_NE(error.find(GetParam().message), std::string::npos) << GetParam().name << ": " << error;
    EXPECT_TRUE(image.rgba.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Bmp, Refusals,
    ::testing::Values(
        Refusal{"pixels cut short", bmpWith(0, {}, 69), "past the end"},
        // 2^31 - 1 wide and high, in 70 bytes: refused before any allocation.
        Refusal{"huge size in a small file", bmpWith(18, {0xff, 0xff, 0xff, 0x7f, 0xff, 0xff, 0xff, 0x7f}), "too large"},
        Refusal{"width 2^16 in a small file", bmpWith(18, {0, 0, 1, 0}), "past the end"},
        Refusal{"RLE8", bmpWith(28, {8, 0, 1, 0}), "RLE"},
        Refusal{"bit count 7", bmpWith(28, {7, 0}), "bit count 7"},
        Refusal{"unknown header size", bmpWith(14, {41}), "header size 41"},
        Refusal{"zero width", bmpWith(18, {0, 0, 0, 0}), "no pixels"},
        Refusal{"pixel offset past the end", bmpWith(10, {0xff, 0xff, 0, 0}), "past the end"}),
    variantName<Refusal>);

INSTANTIATE_TEST_SUITE_P(
    Tga, Refusals,
    ::testing::Values(Refusal{"pixels cut short", smallTga(2, 11), "past the end"},
                      // RLE: one raw packet of 4 pixels needs 1 + 12 bytes; 10 are there.
                      Refusal{"RLE packet cut short", [] {
                                  Bytes file = smallTga(10, 10);
                                  file[18] = 3;
                                  return file;
                              }(), "past the end"},
                      // 65535 x 65535 RLE pixels cannot come from 4 bytes of packets.
                      Refusal{"huge RLE image in a small file", [] {
                                  Bytes file = smallTga(10, 4);
                                  file[12] = file[13] = file[14] = file[15] = 0xff;
                                  return file;
                              }(), "past the end"},
                      Refusal{"colour-mapped without a map", smallTga(1, 4), "without a usable map"},
                      Refusal{"15-bit grey", [] {
                                  Bytes file = smallTga(3, 8);
                                  file[16] = 15;
                                  return file;
                              }(), "grey depth 15"},
                      Refusal{"unknown content", Bytes{1, 2, 3}, "not a PNG, BMP, TGA or XCF"}),
    variantName<Refusal>);

TEST(TgaDecode, RunLengthPacketsMayCrossRows) {
    // 2x2 RLE: one run packet of 3 red pixels (crossing from the bottom row into the top) and one
    // raw packet with a green pixel. The origin is bottom-left, so the bottom row comes first.
    const Bytes file = smallTga(10, 8, {0x82, 0, 0, 255, 0x00, 0, 255, 0});
    wm::png::DecodedImage image;
    std::string error;
    ASSERT_TRUE(wm::png::decodeTga(file.data(), file.size(), image, error)) << error;
    const Bytes red = {255, 0, 0, 255}, green = {0, 255, 0, 255};
    Bytes expected;
    for (const Bytes* pixel : {&red, &green, &red, &red}) expected.insert(expected.end(), pixel->begin(), pixel->end());
    EXPECT_EQ(image.rgba, expected);
}

}  // namespace
