// The PNG reader on malformed files, and the writer: round trips, ImageMagick reading what we
// write, and file saves that never destroy an existing file.
#include "codec_test_support.h"

#include "core/file_io.h"
#include "platform/image_codecs_internal.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using namespace codec_test;
using Bytes = std::vector<std::uint8_t>;
using wm::png::detail::crc32;

// PNG assembly for hand-made files: chunks get correct CRCs unless a test breaks them.
struct Chunk {
    std::string type;
    Bytes body;
};

void appendBe32(Bytes& out, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
}

Bytes pngFile(const std::vector<Chunk>& chunks) {
    Bytes file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    for (const Chunk& chunk : chunks) {
        appendBe32(file, static_cast<std::uint32_t>(chunk.body.size()));
        const std::size_t start = file.size();
        file.insert(file.end(), chunk.type.begin(), chunk.type.end());
        file.insert(file.end(), chunk.body.begin(), chunk.body.end());
        appendBe32(file, crc32(file.data() + start, chunk.body.size() + 4));
    }
    return file;
}

Chunk header(std::uint32_t width, std::uint32_t height, std::uint8_t depth, std::uint8_t colourType, std::uint8_t interlace = 0) {
    Bytes body;
    appendBe32(body, width);
    appendBe32(body, height);
    body.insert(body.end(), {depth, colourType, 0, 0, interlace});
    return {"IHDR", body};
}

// Filtered rows, compressed.
Chunk imageData(const Bytes& rows) { return {"IDAT", wm::png::zlibCompress(rows.data(), rows.size())}; }

// A 2x2 8-bit grey image: each row is a filter byte and two samples.
const Bytes kGreyRows = {0, 10, 20, 0, 30, 40};

struct Refusal {
    const char* name;
    Bytes file;
    const char* message;
};

Bytes withCorruptCrc() {
    Bytes file = pngFile({header(2, 2, 8, 0), imageData(kGreyRows), {"IEND", {}}});
    file[29] ^= 1;  // last byte of the IHDR CRC
    return file;
}


class PngRefusals : public ::testing::TestWithParam<Refusal> {};

TEST_P(PngRefusals, SayWhyAndLeaveTheOutputAlone) {
    wm::png::DecodedImage image;
    std::string error;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(wm::png::decodePng(GetParam().file.data(), GetParam().file.size(), image, error)) << GetParam().name;
    // Refusals come from checks, not from running out of memory or time.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << GetParam().name;
    EXPECT_NE(error.find(GetParam().message), std::string::npos) << GetParam().name << ": " << error;
    EXPECT_EQ(error.rfind("PNG: ", 0), 0u) << error;
    EXPECT_TRUE(image.rgba.empty());
}

std::string caseName(const ::testing::TestParamInfo<Refusal>& info) {
    std::string name = info.param.name;
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    return name;
}

const Chunk kEnd = {"IEND", {}};

INSTANTIATE_TEST_SUITE_P(
    Files, PngRefusals,
    ::testing::Values(
        Refusal{"CRC mismatch", withCorruptCrc(), "CRC mismatch in chunk IHDR"},
        Refusal{"file ends before IEND", pngFile({header(2, 2, 8, 0), imageData(kGreyRows)}), "before IEND"},
        Refusal{"no IDAT", pngFile({header(2, 2, 8, 0), kEnd}), "no IDAT"},
        Refusal{"first chunk not IHDR", pngFile({imageData(kGreyRows), header(2, 2, 8, 0), kEnd}), "first chunk"},
        // 2^31-1 squared pixels announced in a file of 60 bytes.
        Refusal{"huge size", pngFile({header(0x7FFFFFFF, 0x7FFFFFFF, 8, 6), imageData(kGreyRows), kEnd}), "too large"},
        // 16000 x 16000 is within the limits, but 1 GiB of RGBA cannot come from 20 bytes of
        // DEFLATE: refused before any allocation.
        Refusal{"size the data cannot fill", pngFile({header(16000, 16000, 8, 6), imageData(kGreyRows), kEnd}), "too short for the image size"},
        Refusal{"data ends early", pngFile({header(2, 3, 8, 0), imageData(kGreyRows), kEnd}), "ends early"},
        Refusal{"more data than the image", pngFile({header(2, 1, 8, 0), imageData(kGreyRows), kEnd}), "more data than expected"},
        Refusal{"filter type 5", pngFile({header(2, 2, 8, 0), imageData({0, 1, 2, 5, 3, 4}), kEnd}), "filter type 5"},
        Refusal{"IDAT chunks apart", pngFile({header(2, 2, 8, 0), imageData({0, 1, 2}), {"tEXt", {'a', 0, 'b'}}, imageData({0, 3, 4}), kEnd}),
                "not consecutive"},
        Refusal{"unknown critical chunk", pngFile({header(2, 2, 8, 0), {"ABCD", {}}, imageData(kGreyRows), kEnd}), "unknown critical chunk ABCD"},
        Refusal{"palette in a grey image", pngFile({header(2, 2, 8, 0), {"PLTE", {1, 2, 3}}, imageData(kGreyRows), kEnd}), "PLTE in a grey"},
        Refusal{"indexed without palette", pngFile({header(2, 2, 8, 3), imageData(kGreyRows), kEnd}), "without PLTE"},
        Refusal{"palette too long for 1 bit", pngFile({header(2, 2, 1, 3), {"PLTE", Bytes(9, 0)}, imageData({0, 0, 0, 0}), kEnd}), "more entries"},
        Refusal{"tRNS before PLTE", pngFile({header(2, 2, 8, 3), {"tRNS", {0}}, {"PLTE", {1, 2, 3}}, imageData(kGreyRows), kEnd}), "tRNS before PLTE"},
        Refusal{"16-bit indexed", pngFile({header(2, 2, 16, 3), imageData(kGreyRows), kEnd}), "colour type 3 with bit depth 16"},
        Refusal{"interlace method 2", pngFile({header(2, 2, 8, 0, 2), imageData(kGreyRows), kEnd}), "interlace method"},
        Refusal{"chunk name with a digit", pngFile({header(2, 2, 8, 0), {"tE5t", {}}, imageData(kGreyRows), kEnd}), "invalid chunk name"}),
    caseName);

TEST(PngDecode, IndicesPastThePaletteAreOpaqueBlack) {
    // Two palette entries; the second row uses index 3, which the palette lacks.
    const Bytes file = pngFile({header(2, 2, 8, 3), {"PLTE", {255, 0, 0, 0, 255, 0}}, imageData({0, 0, 1, 0, 3, 1}), kEnd});
    wm::png::DecodedImage image;
    std::string error;
    ASSERT_TRUE(wm::png::decodePng(file.data(), file.size(), image, error)) << error;
    EXPECT_EQ(image.rgba, (Bytes{255, 0, 0, 255, 0, 255, 0, 255, 0, 0, 0, 255, 0, 255, 0, 255}));
}

TEST(PngDecode, SeveralIdatChunksJoinIntoOneStream) {
    const Chunk whole = imageData(kGreyRows);
    const std::size_t half = whole.body.size() / 2;
    const Bytes file = pngFile({header(2, 2, 8, 0), {"IDAT", Bytes(whole.body.begin(), whole.body.begin() + static_cast<std::ptrdiff_t>(half))},
                                {"IDAT", Bytes(whole.body.begin() + static_cast<std::ptrdiff_t>(half), whole.body.end())}, kEnd});
    wm::png::DecodedImage image;
    std::string error;
    ASSERT_TRUE(wm::png::decodePng(file.data(), file.size(), image, error)) << error;
    EXPECT_EQ(image.rgba, (Bytes{10, 10, 10, 255, 20, 20, 20, 255, 30, 30, 30, 255, 40, 40, 40, 255}));
}

struct Size {
    int width, height;
};

class PngWriterRoundTrip : public ::testing::TestWithParam<Size> {};

TEST_P(PngWriterRoundTrip, OurReaderAndImageMagickGetThePixelsBack) {
    const auto [width, height] = GetParam();
    const Bytes pixels = testPattern(width, height, static_cast<std::uint32_t>(width * 31 + height));
    const Bytes file = wm::png::encodePng(width, height, pixels.data());
    ASSERT_FALSE(file.empty());
    wm::png::DecodedImage image;
    std::string error;
    ASSERT_TRUE(wm::png::decodePng(file.data(), file.size(), image, error)) << error;
    EXPECT_EQ(image.width, width);
    EXPECT_EQ(image.height, height);
    EXPECT_EQ(image.rgba, pixels);
    if (!imageMagickAvailable()) GTEST_SKIP() << "ImageMagick's convert is not installed; checked with our reader only";
    ScratchDirectory scratch;
    writeBytes(scratch.file("ours.png"), file);
    Bytes theirs;
    ASSERT_TRUE(imageMagickRgba(scratch.file("ours.png"), theirs));
    EXPECT_EQ(theirs, pixels);
}

INSTANTIATE_TEST_SUITE_P(Sizes, PngWriterRoundTrip,
                         ::testing::Values(Size{1, 1}, Size{1, 300}, Size{300, 1}, Size{64, 64}, Size{333, 257}),
                         [](const auto& info) { return std::to_string(info.param.width) + "x" + std::to_string(info.param.height); });

TEST(PngWriter, CompressesAboutAsWellAsImageMagick) {
    if (!imageMagickAvailable()) GTEST_SKIP() << "ImageMagick's convert is not installed";
    const Bytes pixels = testPattern(400, 300, 9);
    const Bytes ours = wm::png::encodePng(400, 300, pixels.data());
    ScratchDirectory scratch;
    writeBytes(scratch.file("ours.png"), ours);
    std::string arguments = quoted(scratch.file("ours.png"));
    arguments += " PNG32:";
    arguments += quoted(scratch.file("theirs.png"));
    ASSERT_TRUE(imageMagickConvert(arguments));
    const std::size_t theirs = readBytes(scratch.file("theirs.png")).size();
    EXPECT_LT(ours.size(), pixels.size() / 2);
    EXPECT_LT(double(ours.size()), 1.15 * double(theirs)) << "ours " << ours.size() << ", ImageMagick " << theirs;
}

TEST(PngWriter, RefusesImagesPngCannotHold) {
    const Bytes pixel = {1, 2, 3, 4};
    EXPECT_TRUE(wm::png::encodePng(0, 5, pixel.data()).empty());
    EXPECT_TRUE(wm::png::encodePng(5, -1, pixel.data()).empty());
    EXPECT_TRUE(wm::png::encodePng(1, 1, nullptr).empty());
    EXPECT_TRUE(wm::png::encodePng(1 << 25, 1, pixel.data()).empty());
}

TEST(PngFiles, SaveThenLoadByPath) {
    ScratchDirectory scratch;
    const Bytes pixels = testPattern(20, 10, 4);
    const std::string path = scratch.file("saved.png").string();
    ASSERT_TRUE(wm_save_png(path, 20, 10, pixels.data()));
    std::int32_t width = 0, height = 0;
    Bytes loaded;
    ASSERT_TRUE(wm_load_png(path, width, height, loaded));
    EXPECT_EQ(width, 20);
    EXPECT_EQ(height, 10);
    EXPECT_EQ(loaded, pixels);
    EXPECT_FALSE(wm_png_requires_postprocess());
}

TEST(PngFiles, LoadTakesOtherFormatsByContentWhateverTheName) {
    ScratchDirectory scratch;
    // A 1x1 24-bit BMP named .png.
    Bytes bmp = {'B', 'M', 58, 0, 0, 0, 0, 0, 0, 0, 54, 0, 0, 0, 40, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 24, 0};
    bmp.resize(54, 0);
    bmp.insert(bmp.end(), {30, 20, 10, 0});  // blue, green, red, padding
    writeBytes(scratch.file("really-a-bmp.png"), bmp);
    std::int32_t width = 0, height = 0;
    Bytes loaded;
    ASSERT_TRUE(wm_load_png(scratch.file("really-a-bmp.png").string(), width, height, loaded));
    EXPECT_EQ(loaded, (Bytes{10, 20, 30, 255}));
}

TEST(PngFiles, FailedLoadLeavesTheOutputsAlone) {
    ScratchDirectory scratch;
    writeBytes(scratch.file("broken.png"), {0x89, 'P', 'N', 'G'});
    std::int32_t width = 7, height = 8;
    Bytes loaded = {1};
    EXPECT_FALSE(wm_load_png(scratch.file("broken.png").string(), width, height, loaded));
    EXPECT_FALSE(wm_load_png(scratch.file("missing.png").string(), width, height, loaded));
    EXPECT_EQ(width, 7);
    EXPECT_EQ(height, 8);
    EXPECT_EQ(loaded, Bytes{1});
}

TEST(PngFiles, FailedSaveKeepsTheOldFileWhole) {
    ScratchDirectory scratch;
    const std::string path = scratch.file("keep.png").string();
    const Bytes old = testPattern(8, 8, 1);
    ASSERT_TRUE(wm_save_png(path, 8, 8, old.data()));
    const Bytes before = readBytes(path);
    // A disk that fills up after 100 bytes of the new file.
    const Bytes replacement = testPattern(200, 200, 2);
    korvel::setWriteFailureAfterBytesForTesting(100);
    EXPECT_FALSE(wm_save_png(path, 200, 200, replacement.data()));
    korvel::setWriteFailureAfterBytesForTesting(-1);
    EXPECT_EQ(readBytes(path), before);
    // Bad arguments write nothing at all.
    EXPECT_FALSE(wm_save_png(path, 0, 8, old.data()));
    EXPECT_FALSE(wm_save_png(path, 8, 8, nullptr));
    EXPECT_FALSE(wm_save_png(scratch.file("no-such-directory/x.png").string(), 8, 8, old.data()));
    EXPECT_EQ(readBytes(path), before);
}

}  // namespace
