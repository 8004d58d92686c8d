// The image record, the live-image registry, the pixel primitives, the blend rule and placement.
#include "graphics/mirel_image.h"
#include "graphics_test_support.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace quillfen {
namespace {

using namespace testing_support;

const Pixel kRed{255, 0, 0, 255}, kGreen{0, 255, 0, 255}, kBlue{0, 0, 255, 255}, kWhite{255, 255, 255, 255};
const Pixel kClear{0, 0, 0, 0};

TEST(SolidImage, SizesBelowOneBecomeOneAndTheImageIsLive) {
    MirelImage* image = createSolidColourImage(0, -5, 10, 20, 30, 40);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->width, 1);
    EXPECT_EQ(image->height, 1);
    EXPECT_EQ(pixelAt(*image, 0, 0), (Pixel{10, 20, 30, 40}));
    EXPECT_TRUE(isLiveImage(image));
    EXPECT_TRUE(killImage(image));
    EXPECT_FALSE(isLiveImage(image));
    EXPECT_FALSE(killImage(image));
}

TEST(SolidImage, FillsEveryRow) {
    MirelImage* image = createSolidColourImage(3, 4, 1, 2, 3, 4);
    ASSERT_NE(image, nullptr);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 3; ++x) EXPECT_EQ(pixelAt(*image, x, y), (Pixel{1, 2, 3, 4})) << x << "," << y;
    EXPECT_TRUE(killImage(image));
}

TEST(SolidImage, RefusesABlockPastFourGigabytes) {
    const std::size_t before = liveImageCount();
    EXPECT_EQ(createSolidColourImage(70000, 70000, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(liveImageCount(), before);
}

TEST(CleanImage, ResetsARegisteredInvalidImageAndLeavesStrangersAlone) {
    auto broken = std::make_unique<MirelImage>();
    broken->width = 5;
    broken->height = 3;  // sizes without a pixel block
    MirelImage* live = registerImage(std::move(broken));
    EXPECT_FALSE(cleanImage(live));
    EXPECT_EQ(live->width, 0);
    EXPECT_EQ(live->height, 0);
    EXPECT_TRUE(cleanImage(live)) << "after the reset it is the valid empty image";
    EXPECT_TRUE(killImage(live));

    MirelImage stranger;
    stranger.width = 5;
    EXPECT_FALSE(cleanImage(&stranger));
    EXPECT_EQ(stranger.width, 5);
    EXPECT_FALSE(cleanImage(nullptr));
}

TEST(PixelPrimitives, OutsideWritesNothingAndReadsTheFallbackPixel) {
    auto image = makeImage(2, 2, kRed);
    for (auto [x, y] : {std::pair{-1, 0}, {0, -1}, {2, 0}, {0, 2}}) {
        setPixel(image.get(), x, y, 1, 2, 3, 4);
        const std::uint8_t* fallback = getPixel(image.get(), x, y);
        ASSERT_NE(fallback, nullptr);
        EXPECT_EQ(fallback[0] + fallback[1] + fallback[2] + fallback[3], 0);
    }
    EXPECT_EQ(pixelBytes(*image), pixelBytes(*makeImage(2, 2, kRed)));
    EXPECT_NE(getPixel(nullptr, 0, 0), nullptr);
    MirelImage empty;
    EXPECT_NE(getPixel(&empty, 0, 0), nullptr);
    setPixel(nullptr, 0, 0, 1, 1, 1, 1);

    setPixel(image.get(), 1, 1, 9, 8, 7, 6);
    EXPECT_EQ(getPixel(image.get(), 1, 1), image->pixels.get() + 12);
    EXPECT_EQ(pixelAt(*image, 1, 1), (Pixel{9, 8, 7, 6}));
}

// ---- the blend rule ----------------------------------------------------------------------
struct BlendCase {
    const char* name;
    Pixel target, source, expected;
};

class BlendRule : public ::testing::TestWithParam<BlendCase> {};

TEST_P(BlendRule, MixesOnePixel) {
    const BlendCase& test = GetParam();
    auto target = makeImage(1, 1, test.target);
    auto source = makeImage(1, 1, test.source);
    blitImage(*target, *source, 0, 0, Blend::Alpha, 1, 0);
    EXPECT_EQ(pixelAt(*target, 0, 0), test.expected) << test.name;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BlendRule,
    ::testing::Values(BlendCase{"alpha 0 leaves the target byte for byte", {12, 34, 56, 78}, {200, 200, 200, 0}, {12, 34, 56, 78}},
                      BlendCase{"alpha 255 copies, target alpha included", {12, 34, 56, 7}, {1, 2, 3, 255}, {1, 2, 3, 255}},
                      // r (200*127 + 100*128)/255 = 149.8; a 100 + 128 - 12800/255 = 178
                      BlendCase{"half alpha truncates", {200, 100, 0, 100}, {100, 50, 250, 128}, {149, 74, 125, 178}},
                      BlendCase{"alpha accumulates to at most 255", {0, 0, 0, 255}, {255, 255, 255, 254}, {254, 254, 254, 255}},
                      BlendCase{"alpha 1 onto transparent", {0, 0, 0, 0}, {255, 255, 255, 1}, {1, 1, 1, 1}}));

TEST(BlendRule, WideRowsGiveWhatTheOnePixelRuleGives) {
    // Rows are blended several pixels at a time; every (target alpha, source alpha) pair and a
    // ragged tail must match blending the same pixels one by one.
    auto target = noiseImage(259, 256, 31), source = noiseImage(259, 256, 32);
    for (int y = 0; y < 256; ++y)
        for (int x = 0; x < 256; ++x) {
            target->pixels[pixelOffset(*target, x, y) + 3] = static_cast<std::uint8_t>(x);
            source->pixels[pixelOffset(*source, x, y) + 3] = static_cast<std::uint8_t>(y);
        }
    auto expected = copyImage(*target);
    for (int y = 0; y < 256; ++y)
        for (int x = 0; x < 259; ++x) {
            auto one = makeImage(1, 1, pixelAt(*expected, x, y));
            blitImage(*one, *makeImage(1, 1, pixelAt(*source, x, y)), 0, 0, Blend::Alpha, 1, 0);
            putPixel(*expected, x, y, pixelAt(*one, 0, 0));
        }
    blitImage(*target, *source, 0, 0, Blend::Alpha, 1, 0);
    EXPECT_TRUE(pixelBytes(*target) == pixelBytes(*expected));
}

TEST(BlendRule, CopyModeOverwritesEvenTransparentPixels) {
    auto target = makeImage(1, 1, kRed);
    auto source = makeImage(1, 1, {9, 9, 9, 0});
    blitImage(*target, *source, 0, 0, Blend::Copy, 1, 0);
    EXPECT_EQ(pixelAt(*target, 0, 0), (Pixel{9, 9, 9, 0}));
}

// ---- placement and clipping --------------------------------------------------------------
struct Box {
    int x = 0, y = 0, width = 0, height = 0;
    bool operator==(const Box&) const = default;
};

// The bounding box of the pixels of one colour, and whether that colour fills it.
std::optional<Box> paintedBox(const MirelImage& image, Pixel colour) {
    int left = image.width, top = image.height, right = -1, bottom = -1, count = 0;
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x)
            if (pixelAt(image, x, y) == colour) {
                left = std::min(left, x), top = std::min(top, y), right = std::max(right, x), bottom = std::max(bottom, y);
                ++count;
            }
    if (count == 0) return Box{};
    if (count != (right - left + 1) * (bottom - top + 1)) return std::nullopt;  // not a filled rectangle
    return Box{left, top, right - left + 1, bottom - top + 1};
}

struct ClipCase {
    const char* name;
    int x, y;
    Box painted;
};

class BlitClipping : public ::testing::TestWithParam<std::tuple<ClipCase, Blend>> {};

TEST_P(BlitClipping, DrawsOnlyTheOverlap) {
    const auto& [test, blend] = GetParam();
    auto target = makeImage(8, 8, kClear);
    auto source = makeImage(4, 4, kRed);
    blitImage(*target, *source, test.x, test.y, blend, 1, 0);
    EXPECT_EQ(paintedBox(*target, kRed), test.painted) << test.name;
}

INSTANTIATE_TEST_SUITE_P(Edges, BlitClipping,
                         ::testing::Combine(::testing::Values(ClipCase{"inside", 2, 2, {2, 2, 4, 4}}, ClipCase{"right", 6, 0, {6, 0, 2, 4}},
                                                              ClipCase{"bottom", 1, 7, {1, 7, 4, 1}},
                                                              ClipCase{"negative", -2, -1, {0, 0, 2, 3}},
                                                              ClipCase{"covers a corner", -3, 5, {0, 5, 1, 3}},
                                                              ClipCase{"outside", 9, 9, {}}, ClipCase{"far left", -4, 0, {}},
                                                              ClipCase{"huge", 2147483000, -2147483000, {}}),
                                            ::testing::Values(Blend::Copy, Blend::Alpha)));

TEST(BlitRect, DrawsThePartClippedToTheSource) {
    auto source = makeImage(4, 4, kRed);
    putPixel(*source, 2, 1, kBlue);
    auto target = makeImage(6, 6, kClear);
    blitImageRect(*target, *source, SourceRect{2, 1, 5, 1}, 1, 3, Blend::Copy, 1);  // 3 wide after clipping
    EXPECT_EQ(pixelAt(*target, 1, 3), kBlue);
    EXPECT_EQ(pixelAt(*target, 2, 3), kRed);
    EXPECT_EQ(pixelAt(*target, 3, 3), kClear) << "the part runs past the source's right edge";
    EXPECT_EQ(paintedBox(*target, kRed), (Box{2, 3, 1, 1}));

    auto shifted = makeImage(6, 6, kClear);
    blitImageRect(*shifted, *source, SourceRect{-1, 1, 3, 1}, 0, 0, Blend::Copy, 1);
    EXPECT_EQ(pixelAt(*shifted, 0, 0), kClear) << "a column left of the source is skipped";
    EXPECT_EQ(pixelAt(*shifted, 1, 0), kRed);
}

TEST(BlitImage, OntoItselfReadsTheOriginal) {
    auto image = makeImage(4, 1, kClear);
    putPixel(*image, 0, 0, kRed);
    putPixel(*image, 1, 0, kGreen);
    blitImage(*image, *image, 1, 0, Blend::Copy, 1, 0);
    EXPECT_EQ(pixelAt(*image, 1, 0), kRed);
    EXPECT_EQ(pixelAt(*image, 2, 0), kGreen);
    EXPECT_EQ(pixelAt(*image, 3, 0), kClear);
}

// A 2 × 2 source of four colours, for the scaled and turned placements.
std::unique_ptr<MirelImage> quadrants() {
    auto image = makeImage(2, 2);
    putPixel(*image, 0, 0, kRed);
    putPixel(*image, 1, 0, kGreen);
    putPixel(*image, 0, 1, kBlue);
    putPixel(*image, 1, 1, kWhite);
    return image;
}

TEST(BlitImage, ScaleTwoRepeatsEachPixelAsATwoByTwoBlock) {
    auto target = makeImage(6, 6, kClear);
    blitImage(*target, *quadrants(), 1, 1, Blend::Copy, 2, 0);
    EXPECT_EQ(paintedBox(*target, kRed), (Box{1, 1, 2, 2}));
    EXPECT_EQ(paintedBox(*target, kGreen), (Box{3, 1, 2, 2}));
    EXPECT_EQ(paintedBox(*target, kBlue), (Box{1, 3, 2, 2}));
    EXPECT_EQ(paintedBox(*target, kWhite), (Box{3, 3, 2, 2}));
}

TEST(BlitImage, ScaleZeroDrawsNothingAndANegativeScaleMirrorsLeftOfThePosition) {
    auto target = makeImage(6, 2, kClear);
    blitImage(*target, *quadrants(), 2, 0, Blend::Copy, 0, 0);
    EXPECT_EQ(paintedBox(*target, kRed), Box{});
    blitImage(*target, *quadrants(), 4, 2, Blend::Copy, -1, 0);
    EXPECT_EQ(pixelAt(*target, 2, 0), kWhite);
    EXPECT_EQ(pixelAt(*target, 3, 0), kBlue);
    EXPECT_EQ(pixelAt(*target, 2, 1), kGreen);
    EXPECT_EQ(pixelAt(*target, 3, 1), kRed);
}

TEST(BlitImage, PositiveRotationTurnsClockwiseOnScreen) {
    // A bar [red green blue] turned by 90 degrees about its centre stands upright, red on top.
    auto bar = makeImage(3, 1);
    putPixel(*bar, 0, 0, kRed);
    putPixel(*bar, 1, 0, kGreen);
    putPixel(*bar, 2, 0, kBlue);
    auto target = makeImage(10, 10, kClear);
    blitImage(*target, *bar, 5, 5, Blend::Copy, 1, 90);
    EXPECT_EQ(paintedBox(*target, kRed), (Box{6, 4, 1, 1}));
    EXPECT_EQ(paintedBox(*target, kGreen), (Box{6, 5, 1, 1}));
    EXPECT_EQ(paintedBox(*target, kBlue), (Box{6, 6, 1, 1}));

    auto turnedBack = makeImage(10, 10, kClear);
    blitImage(*turnedBack, *bar, 5, 5, Blend::Copy, 1, -270);
    EXPECT_EQ(pixelBytes(*turnedBack), pixelBytes(*target)) << "-270 reduces to 90";
}

TEST(BlitImage, HalfTurnReversesBothAxesAndFullTurnsChangeNothing) {
    auto source = noiseImage(5, 3, 7);
    auto upright = makeImage(9, 9, kClear), turned = makeImage(9, 9, kClear), full = makeImage(9, 9, kClear);
    blitImage(*upright, *source, 2, 3, Blend::Copy, 1, 0);
    blitImage(*turned, *source, 2, 3, Blend::Copy, 1, 180);
    blitImage(*full, *source, 2, 3, Blend::Copy, 1, 720);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) EXPECT_EQ(pixelAt(*turned, 2 + x, 3 + y), pixelAt(*source, 4 - x, 2 - y));
    EXPECT_EQ(pixelBytes(*full), pixelBytes(*upright));
}

TEST(BlitImage, TurnedImagesKeepTheirAreaAndStayInsideTheTarget) {
    auto source = makeImage(40, 20, kRed);
    for (double angle : {17.0, 45.0, 133.0, 271.5}) {
        auto target = makeImage(60, 60, kClear);
        blitImage(*target, *source, 10, 20, Blend::Alpha, 1, angle);
        int painted = 0;
        for (int y = 0; y < 60; ++y)
            for (int x = 0; x < 60; ++x) painted += pixelAt(*target, x, y) == kRed;
        EXPECT_NEAR(painted, 800, 40) << angle;  // nearest sampling keeps the area within a few percent
    }
    auto small = makeImage(8, 8, kClear);
    blitImage(*small, *source, -30, -10, Blend::Alpha, 3.5, 33);  // runs far over every edge
    EXPECT_EQ(pixelAt(*small, 0, 0), kRed);
}

}  // namespace
}  // namespace quillfen
