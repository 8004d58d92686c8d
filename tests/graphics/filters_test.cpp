// Dither, mirror, upscale, block smoothing, trim, skew and ASCII art; and that every operation
// that splits rows over threads gives the same pixels whatever the thread setting.
#include "graphics/mirel_image.h"
#include "graphics/shader_processors.h"
#include "graphics_test_support.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace quillfen {
namespace {

using namespace testing_support;

const Pixel kRed{255, 0, 0, 255}, kClear{0, 0, 0, 0};

// ---- dither --------------------------------------------------------------------------------
TEST(Dither, AmountZeroChangesNothing) {
    auto image = noiseImage(9, 7, 1);
    const auto before = pixelBytes(*image);
    ditherImage(image.get(), 0, false);
    ditherImage(image.get(), -3, false);
    EXPECT_EQ(pixelBytes(*image), before);
}

TEST(Dither, NoiseIsAPositionHashAddedToAllFourBytes) {
    auto image = makeImage(6, 8, {100, 100, 100, 100});
    ditherImage(image.get(), 10, false);
    // Noise values worked out by hand from the position hash for amount 10 (modulus 21).
    EXPECT_EQ(pixelAt(*image, 0, 0), (Pixel{100, 100, 100, 100}));
    EXPECT_EQ(pixelAt(*image, 1, 0), (Pixel{110, 110, 110, 110}));
    EXPECT_EQ(pixelAt(*image, 0, 1), (Pixel{92, 92, 92, 92}));
    EXPECT_EQ(pixelAt(*image, 5, 7), (Pixel{105, 105, 105, 105}));
    for (std::uint8_t byte : pixelBytes(*image)) {
        EXPECT_GE(byte, 90);
        EXPECT_LE(byte, 110);
    }
}

TEST(Dither, SaturatesAtBothEnds) {
    auto image = makeImage(4, 4, {0, 255, 0, 255});
    ditherImage(image.get(), 200, false);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) {
            const Pixel pixel = pixelAt(*image, x, y);
            EXPECT_TRUE(pixel[0] == 0 || pixel[1] == 255) << "noise moves every byte the same way";
        }
    ditherImage(image.get(), 2147483647, false);  // the largest amount: modulus 2^32 - 1
}

TEST(Dither, DoubleSizeMakesTwoByTwoBlocks) {
    auto image = noiseImage(3, 2, 4);
    const auto original = copyImage(*image);
    ditherImage(image.get(), 0, true);
    ASSERT_EQ(image->width, 6);
    ASSERT_EQ(image->height, 4);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 6; ++x) EXPECT_EQ(pixelAt(*image, x, y), pixelAt(*original, x / 2, y / 2));
}

// ---- mirror --------------------------------------------------------------------------------
TEST(Mirror, ReversesRowsOrColumnsAndKeepsAnOddMiddle) {
    auto image = noiseImage(3, 5, 2);
    const auto original = copyImage(*image);
    mirrorMirelImage(image.get(), MirrorAxis::Horizontal);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 3; ++x) EXPECT_EQ(pixelAt(*image, x, y), pixelAt(*original, 2 - x, y));
    mirrorMirelImage(image.get(), MirrorAxis::Horizontal);
    mirrorMirelImage(image.get(), MirrorAxis::Vertical);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 3; ++x) EXPECT_EQ(pixelAt(*image, x, y), pixelAt(*original, x, 4 - y));
}

TEST(Mirror, OneRowVerticallyOrOneColumnHorizontallyChangesNothing) {
    auto row = noiseImage(7, 1, 3), column = noiseImage(1, 7, 3);
    const auto rowBefore = pixelBytes(*row), columnBefore = pixelBytes(*column);
    mirrorMirelImage(row.get(), MirrorAxis::Vertical);
    mirrorMirelImage(column.get(), MirrorAxis::Horizontal);
    EXPECT_EQ(pixelBytes(*row), rowBefore);
    EXPECT_EQ(pixelBytes(*column), columnBefore);
    mirrorMirelImage(nullptr, MirrorAxis::Vertical);
}

// ---- bilinear upscale ----------------------------------------------------------------------
TEST(Upscale, FactorOneOrLessChangesNothing) {
    auto image = noiseImage(5, 4, 5);
    const auto before = pixelBytes(*image);
    for (double factor : {1.0, 0.5, 0.0, -2.0}) upscaleMirelImage(image.get(), factor);
    EXPECT_EQ(image->width, 5);
    EXPECT_EQ(pixelBytes(*image), before);
}

TEST(Upscale, NewSizeIsTruncatedAndARampIsInterpolated) {
    auto ramp = makeImage(2, 1, {0, 0, 0, 255});
    putPixel(*ramp, 1, 0, {255, 255, 255, 255});
    upscaleMirelImage(ramp.get(), 2.0);
    ASSERT_EQ(ramp->width, 4);
    ASSERT_EQ(ramp->height, 2);
    // Samples at -0.25 (extrapolated, clamped to 0), 0.25, 0.75 and 1.25 (the edge pixel).
    const int expected[4] = {0, 63, 191, 255};
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 4; ++x) EXPECT_EQ(pixelAt(*ramp, x, y)[0], expected[x]) << x << "," << y;

    auto odd = makeImage(3, 3, {7, 7, 7, 7});
    upscaleMirelImage(odd.get(), 1.5);
    EXPECT_EQ(odd->width, 4);
    EXPECT_EQ(odd->height, 4);
}

TEST(Upscale, AFlatImageStaysFlat) {
    for (double factor : {1.1, 2.0, 2.7, 3.3}) {
        auto image = makeImage(7, 5, {255, 128, 1, 255});
        upscaleMirelImage(image.get(), factor);
        for (int y = 0; y < image->height; ++y)
            for (int x = 0; x < image->width; ++x) ASSERT_EQ(pixelAt(*image, x, y), (Pixel{255, 128, 1, 255})) << factor;
    }
}

// ---- block smoothing -----------------------------------------------------------------------
class AccuracySetting {
public:
    explicit AccuracySetting(int value) : m_saved(mirelAccuracy()) { setMirelAccuracy(value); }
    ~AccuracySetting() { setMirelAccuracy(m_saved); }

private:
    int m_saved = 4;
};

TEST(BlockSmoothing, KeepsTheGridAndInterpolatesBetweenIt) {
    AccuracySetting accuracy(2);
    auto image = noiseImage(4, 3, 6);
    putPixel(*image, 0, 0, {0, 0, 0, 0});
    putPixel(*image, 2, 0, {255, 100, 1, 0});
    putPixel(*image, 0, 2, {0, 0, 0, 255});
    putPixel(*image, 2, 2, {255, 0, 0, 255});
    const auto original = copyImage(*image);
    bilinearInPlace(image.get());
    EXPECT_EQ(pixelAt(*image, 0, 0), pixelAt(*original, 0, 0));
    EXPECT_EQ(pixelAt(*image, 2, 2), pixelAt(*original, 2, 2));
    EXPECT_EQ(pixelAt(*image, 1, 0), (Pixel{128, 50, 1, 0})) << "halfway, rounded to nearest";
    EXPECT_EQ(pixelAt(*image, 0, 1), (Pixel{0, 0, 0, 128}));
    EXPECT_EQ(pixelAt(*image, 1, 1), (Pixel{128, 25, 0, 128}));
    // Column 3: the next grid column would be 4, past the edge, so column 2 is used alone.
    EXPECT_EQ(pixelAt(*image, 3, 0), pixelAt(*original, 2, 0));
    EXPECT_EQ(pixelAt(*image, 3, 2), pixelAt(*original, 2, 2));
}

TEST(BlockSmoothing, DoesNothingWithoutThreadsOrBlockSize) {
    auto image = noiseImage(6, 6, 8);
    const auto before = pixelBytes(*image);
    {
        ThreadSetting none(0);
        bilinearInPlace(image.get());
    }
    {
        AccuracySetting zero(0);
        bilinearInPlace(image.get());
    }
    EXPECT_EQ(pixelBytes(*image), before);
}

// ---- trim ----------------------------------------------------------------------------------
TEST(Trim, KeepsTheTopLeftCorner) {
    auto image = noiseImage(5, 4, 9);
    const auto original = copyImage(*image);
    trimMirelImage(image.get(), 3, 2);
    ASSERT_EQ(image->width, 3);
    ASSERT_EQ(image->height, 2);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x) EXPECT_EQ(pixelAt(*image, x, y), pixelAt(*original, x, y));
}

TEST(Trim, NeverEnlargesAndIgnoresNonPositiveSizes) {
    auto image = noiseImage(5, 4, 10);
    const auto before = pixelBytes(*image);
    for (auto [width, height] : {std::pair{6, 2}, {2, 5}, {0, 2}, {3, -1}, {5, 4}}) trimMirelImage(image.get(), width, height);
    EXPECT_EQ(image->width, 5);
    EXPECT_EQ(image->height, 4);
    EXPECT_EQ(pixelBytes(*image), before);
}

// ---- skew ----------------------------------------------------------------------------------
TEST(Skew, AQuadOfTheInputsOwnCornersCopiesIt) {
    auto input = noiseImage(5, 4, 11);
    for (std::size_t offset = 3; offset < 5 * 4 * 4; offset += 4) input->pixels[offset] = 255;  // opaque
    auto output = makeImage(5, 4, kClear);
    skewImage(0, 0, 4, 0, 0, 3, 4, 3, input.get(), output.get());
    EXPECT_EQ(pixelBytes(*output), pixelBytes(*input));

    auto mirrored = makeImage(5, 4, kClear);
    skewImage(4, 0, 0, 0, 4, 3, 0, 3, input.get(), mirrored.get());  // left and right swapped
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x) EXPECT_EQ(pixelAt(*mirrored, x, y), pixelAt(*input, 4 - x, y));
}

TEST(Skew, FillsAParallelogramWithoutGaps) {
    auto input = makeImage(4, 4, kRed);
    auto output = makeImage(20, 10, kClear);
    skewImage(2, 1, 10, 1, 6, 8, 14, 8, input.get(), output.get());
    for (int y = 1; y <= 8; ++y) {
        int first = -1, last = -1, count = 0;
        for (int x = 0; x < 20; ++x)
            if (pixelAt(*output, x, y) == kRed) {
                if (first < 0) first = x;
                last = x, ++count;
            }
        EXPECT_EQ(count, last - first + 1) << "row " << y << " has a gap";
        EXPECT_GE(count, 8) << "row " << y;
    }
    EXPECT_EQ(pixelAt(*output, 0, 9), kClear);
}

TEST(Skew, DegenerateOrOffscreenQuadsAreSafe) {
    auto input = makeImage(4, 4, kRed);
    auto output = makeImage(8, 8, kClear);
    skewImage(3, 3, 3, 3, 3, 3, 3, 3, input.get(), output.get());
    skewImage(0, 0, 5, 5, 2, 2, 7, 7, input.get(), output.get());  // all corners on one line
    EXPECT_EQ(pixelBytes(*output), pixelBytes(*makeImage(8, 8, kClear)));
    skewImage(-2000000000, -5, 2000000000, -5, -2000000000, 2000000000, 2000000000, 2000000000, input.get(), output.get());
    EXPECT_EQ(pixelAt(*output, 4, 4), kRed);
    skewImage(0, 0, 4, 0, 0, 4, 4, 4, nullptr, output.get());
    skewImage(0, 0, 4, 0, 0, 4, 4, 4, input.get(), nullptr);
}

// ---- ASCII art -----------------------------------------------------------------------------
struct AsciiCase {
    const char* name;
    Pixel colour;
    char expected;
};

class AsciiRamp : public ::testing::TestWithParam<AsciiCase> {};

TEST_P(AsciiRamp, PicksTheCharacterOfTheLuminance) {
    auto image = makeImage(1, 1, GetParam().colour);
    EXPECT_EQ(asciiArtText(image.get(), 1, 1), std::string(1, GetParam().expected) + "\n") << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(Colours, AsciiRamp,
                         ::testing::Values(AsciiCase{"black is blank", {0, 0, 0, 255}, ' '}, AsciiCase{"white", {255, 255, 255, 255}, 'k'},
                                           AsciiCase{"grey", {128, 128, 128, 255}, '/'}, AsciiCase{"red", {255, 0, 0, 255}, 'i'},
                                           AsciiCase{"blue", {0, 0, 255, 255}, '}'},
                                           AsciiCase{"alpha is ignored", {255, 255, 255, 0}, 'k'}));

TEST(AsciiArt, FitsAndCentresThePictureInCellsOneAndAHalfTall) {
    auto white = makeImage(2, 2, {255, 255, 255, 255});
    // Scale min(4/2, 3/2) = 1.5: a 3 × 3 picture, left margin 0.5, so the last column is blank.
    EXPECT_EQ(asciiArtText(white.get(), 4, 2), "kkk \nkkk \n");
    // Scale min(3/2, 6/2) = 1.5: 3 units tall in 6, so the top and bottom rows are blank.
    EXPECT_EQ(asciiArtText(white.get(), 3, 4), "   \nkkk\nkkk\n   \n");
}

TEST(AsciiArt, RefusesBadInputOnStandardError) {
    auto image = makeImage(2, 2, kRed);
    MirelImage empty;
    EXPECT_EQ(asciiArtText(nullptr, 4, 4), "");
    EXPECT_EQ(asciiArtText(&empty, 4, 4), "");
    EXPECT_EQ(asciiArtText(image.get(), 0, 4), "");
    EXPECT_EQ(asciiArtText(image.get(), 4, -1), "");
    EXPECT_EQ(asciiArtText(image.get(), 2000000000, 2000000000), "") << "too large to build";
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    printAsciiArt(image.get(), 0, 1);
    printAsciiArt(image.get(), 1, 1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "i\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Invalid input parameters.\n");
}

// ---- thread-count independence -------------------------------------------------------------
struct ParallelCase {
    const char* name;
    std::function<void(MirelImage&)> operation;
};

class ThreadIndependence : public ::testing::TestWithParam<ParallelCase> {};

TEST_P(ThreadIndependence, SamePixelsWithOneTwoOrSixThreads) {
    // 613 × 517 exceeds the 180000 pixels from which blits go parallel; odd sizes give uneven splits.
    std::vector<std::uint8_t> reference;
    int referenceWidth = 0;
    for (int threads : {1, 2, 6, 7}) {
        ThreadSetting setting(threads);
        auto image = noiseImage(613, 517, 12);
        GetParam().operation(*image);
        if (threads == 1) {
            reference = pixelBytes(*image);
            referenceWidth = image->width;
            continue;
        }
        EXPECT_EQ(image->width, referenceWidth) << GetParam().name << " with " << threads;
        EXPECT_TRUE(pixelBytes(*image) == reference) << GetParam().name << " with " << threads << " threads";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Operations, ThreadIndependence,
    ::testing::Values(
        ParallelCase{"dither", [](MirelImage& image) { ditherImage(&image, 17, false); }},
        ParallelCase{"dither doubled", [](MirelImage& image) { ditherImage(&image, 5, true); }},
        ParallelCase{"upscale", [](MirelImage& image) { upscaleMirelImage(&image, 1.7); }},
        ParallelCase{"block smoothing", [](MirelImage& image) { bilinearInPlace(&image); }},
        ParallelCase{"trim", [](MirelImage& image) { trimMirelImage(&image, 601, 333); }},
        ParallelCase{"skew", [](MirelImage& image) {
                         auto input = noiseImage(97, 61, 13);
                         skewImage(-20, 30, 580, 4, 40, 500, 600, 460, input.get(), &image);
                     }},
        ParallelCase{"blit", [](MirelImage& image) { blitImage(image, *noiseImage(611, 515, 14), 1, 2, Blend::Alpha, 1, 0); }},
        ParallelCase{"blit turned", [](MirelImage& image) { blitImage(image, *noiseImage(400, 300, 15), 90, 70, Blend::Alpha, 1.3, 33); }}),
    [](const auto& info) {
        std::string name = info.param.name;
        std::replace(name.begin(), name.end(), ' ', '_');
        return name;
    });

}  // namespace
}  // namespace quillfen
