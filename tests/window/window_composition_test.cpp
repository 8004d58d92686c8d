// The platform-free window code: letterboxing, composition, mouse mapping and input
// bookkeeping, as every backend relies on them.
#include "platform/window_composition.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using wm::WindowState;

struct Rgb {
    std::uint8_t red, green, blue;
    bool operator==(const Rgb&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Rgb& colour) {
    return out << "rgb(" << int(colour.red) << "," << int(colour.green) << "," << int(colour.blue) << ")";
}

// A picture of width × height in one colour.
std::vector<std::uint8_t> solidPixels(int width, int height, std::array<std::uint8_t, 4> rgba) {
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(std::max(width * height, 0)) * 4);
    for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = rgba[i % 4];
    return pixels;
}

// Back-buffer pixel (x, y), read from the word the screen gets.
Rgb backBufferPixel(const WindowState& state, int x, int y) {
    const std::uint32_t word = state.backBufferWords[static_cast<std::size_t>(y) * state.clientWidth + x];
    EXPECT_EQ(word >> 24, 0u) << "the top byte of a screen word is unused and zero, at " << x << "," << y;
    return {std::uint8_t(word >> 16), std::uint8_t(word >> 8), std::uint8_t(word)};
}

WindowState windowOf(int width, int height) {
    WindowState state;
    wm::initialiseWindowState(state, width, height, "test");
    return state;
}

TEST(WindowState, ZeroSizeWindowHasOnePixelClientArea) {
    WindowState state = windowOf(0, 0);
    EXPECT_EQ(state.clientWidth, 1);
    EXPECT_EQ(state.clientHeight, 1);
    EXPECT_EQ(state.requestedWidth, 1);
    EXPECT_EQ(state.backBufferWords.size(), 1u);
    WindowState huge = windowOf(100000, 2);
    EXPECT_EQ(huge.clientWidth, wm::kMaxWindowSide);
    EXPECT_EQ(huge.requestedWidth, wm::kMaxWindowSide);
    wm::resizeClient(state, 0, 7);
    EXPECT_EQ(state.clientWidth, 1);
    EXPECT_EQ(state.clientHeight, 7);
    EXPECT_EQ(state.backBufferWords.size(), 7u);
}

struct LetterboxCase {
    const char* name;
    int clientWidth, clientHeight, imageWidth, imageHeight;
    wm::Letterbox expected;
};

void PrintTo(const LetterboxCase& c, std::ostream* out) { *out << c.name; }

class Letterboxing : public ::testing::TestWithParam<LetterboxCase> {};

TEST_P(Letterboxing, PlacesTheScaledPicture) {
    const LetterboxCase& c = GetParam();
    const wm::Letterbox box = wm::letterboxFor(c.clientWidth, c.clientHeight, c.imageWidth, c.imageHeight);
    EXPECT_EQ(box.drawnWidth, c.expected.drawnWidth) << c.name;
    EXPECT_EQ(box.drawnHeight, c.expected.drawnHeight) << c.name;
    EXPECT_EQ(box.offsetX, c.expected.offsetX) << c.name;
    EXPECT_EQ(box.offsetY, c.expected.offsetY) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, Letterboxing,
    ::testing::Values(LetterboxCase{"bars top and bottom", 640, 480, 320, 200, {640, 400, 0, 40}},
                      LetterboxCase{"bars left and right", 800, 400, 320, 200, {640, 400, 80, 0}},
                      LetterboxCase{"exact fit", 960, 544, 960, 544, {960, 544, 0, 0}},
                      // 544 × (1080 / 544) = 1080; 960 × 1.985... = 1905.88, rounded to 1906.
                      LetterboxCase{"non-integer scale rounds", 1920, 1080, 960, 544, {1906, 1080, 7, 0}},
                      LetterboxCase{"shrinks", 100, 100, 400, 200, {100, 50, 0, 25}},
                      LetterboxCase{"odd leftover goes right", 11, 10, 10, 10, {10, 10, 0, 0}},
                      LetterboxCase{"never below one pixel", 1, 1, 5000, 3, {1, 1, 0, 0}},
                      LetterboxCase{"one pixel image fills", 7, 3, 1, 1, {3, 3, 2, 0}}),
    [](const auto& info) {
        std::string name = info.param.name;
        for (char& c : name) if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

TEST(Composition, ScalesByTwoWithFortyPixelBarsInTheClearColour) {
    WindowState state = windowOf(640, 480);
    wm::setClearColour(state, 10, 20, 30);
    // Left half red, right half green, and one white pixel at (1, 1) to pin the sampling.
    std::vector<std::uint8_t> pixels = solidPixels(320, 200, {255, 0, 0, 255});
    for (int y = 0; y < 200; ++y)
        for (int x = 160; x < 320; ++x) pixels[(y * 320 + x) * 4 + 0] = 0, pixels[(y * 320 + x) * 4 + 1] = 255;
    for (int i = 0; i < 3; ++i) pixels[(1 * 320 + 1) * 4 + i] = 255;
    wm::pushPixels(state, 320, 200, pixels.data());
    wm::composeBackBuffer(state);

    const Rgb clear{10, 20, 30}, red{255, 0, 0}, green{0, 255, 0}, white{255, 255, 255};
    struct Probe { int x, y; Rgb colour; };
    const Probe probes[] = {
        {0, 0, clear},     {639, 39, clear},  {320, 39, clear},  {0, 440, clear}, {639, 479, clear},
        {0, 40, red},      {319, 439, red},   {320, 40, green},  {639, 439, green},
        {2, 42, white},    {3, 43, white},    {1, 42, red},      {4, 42, red},    {2, 41, red}, {2, 44, red},
    };
    for (const Probe& probe : probes)
        EXPECT_EQ(backBufferPixel(state, probe.x, probe.y), probe.colour) << "at " << probe.x << "," << probe.y;
}

struct AlphaCase {
    const char* name;
    std::uint8_t alpha;
    Rgb expected;  // over the clear colour (200, 100, 0) with source (0, 50, 255)
};

void PrintTo(const AlphaCase& c, std::ostream* out) { *out << c.name; }

class AlphaRule : public ::testing::TestWithParam<AlphaCase> {};

TEST_P(AlphaRule, BlendsOverTheClearColourTruncating) {
    WindowState state = windowOf(4, 4);
    wm::setClearColour(state, 200, 100, 0);
    std::vector<std::uint8_t> pixels = solidPixels(2, 2, {0, 50, 255, GetParam().alpha});
    wm::pushPixels(state, 2, 2, pixels.data());
    wm::composeBackBuffer(state);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) EXPECT_EQ(backBufferPixel(state, x, y), GetParam().expected) << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(
    Alphas, AlphaRule,
    ::testing::Values(AlphaCase{"transparent shows clear", 0, {200, 100, 0}},
                      AlphaCase{"opaque shows itself", 255, {0, 50, 255}},
                      // (200 × 127 + 0) / 255 = 99.6 -> 99; (100 × 127 + 50 × 128) / 255 = 74.9 -> 74; 128.
                      AlphaCase{"half truncates", 128, {99, 74, 128}},
                      // (200 × 254) / 255 = 199.2 -> 199; (100 × 254 + 50) / 255 = 99.8 -> 99; 255 / 255 = 1.
                      AlphaCase{"almost transparent", 1, {199, 99, 1}}),
    [](const auto& info) {
        std::string name = info.param.name;
        for (char& c : name) if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

TEST(Composition, DivisionByTwoHundredFiftyFiveIsExactOverTheBlendRange) {
    for (std::uint32_t x = 0; x <= 255u * 255u; ++x) ASSERT_EQ(wm::divideBy255(x), x / 255) << x;
}

TEST(Composition, NoImageFillsWithClearColourAndResizedBufferFollowsClient) {
    WindowState state = windowOf(3, 2);
    wm::setClearColour(state, 1, 2, 3);
    wm::resizeClient(state, 5, 4);
    wm::composeBackBuffer(state);
    ASSERT_EQ(state.backBufferWords.size(), 20u);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x) EXPECT_EQ(backBufferPixel(state, x, y), (Rgb{1, 2, 3}));
}

TEST(Composition, NearestSamplingMatchesTheColumnAndRowRule) {
    // A 3 × 2 image with distinct pixels drawn into 7 × 5: every back-buffer pixel must come
    // from source column (x - offsetX) × 3 / drawnWidth and row (y - offsetY) × 2 / drawnHeight.
    WindowState state = windowOf(7, 5);
    std::vector<std::uint8_t> pixels(6 * 4);
    for (int i = 0; i < 6; ++i) {
        pixels[i * 4 + 0] = std::uint8_t(40 * i);
        pixels[i * 4 + 1] = std::uint8_t(i);
        pixels[i * 4 + 2] = 7;
        pixels[i * 4 + 3] = 255;
    }
    wm::pushPixels(state, 3, 2, pixels.data());
    wm::composeBackBuffer(state);
    const wm::Letterbox box = wm::letterboxFor(7, 5, 3, 2);
    ASSERT_EQ(box.drawnWidth, 7);
    ASSERT_EQ(box.drawnHeight, 5);  // 2 × 7/3 = 4.67 -> 5
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) {
            const int index = (y * 2 / 5) * 3 + (x * 3 / 7);
            EXPECT_EQ(backBufferPixel(state, x, y), (Rgb{std::uint8_t(40 * index), std::uint8_t(index), 7})) << x << "," << y;
        }
}

TEST(Composition, RgbaCopyFollowsTheWordsWithOpaqueAlpha) {
    WindowState state = windowOf(2, 1);
    const std::uint8_t pixels[] = {10, 20, 30, 255, 40, 50, 60, 0};
    wm::setClearColour(state, 7, 8, 9);
    wm::pushPixels(state, 2, 1, pixels);
    wm::composeBackBuffer(state);
    EXPECT_EQ(wm::backBufferRgba(state), (std::vector<std::uint8_t>{10, 20, 30, 255, 7, 8, 9, 255}));
    // Recomposed after a change: the copy must not be a stale one.
    wm::setClearColour(state, 1, 2, 3);
    wm::composeBackBuffer(state);
    EXPECT_EQ(wm::backBufferRgba(state), (std::vector<std::uint8_t>{10, 20, 30, 255, 1, 2, 3, 255}));
}

TEST(Pushing, SamePictureAgainDoesNotMarkDirtyButAChangeDoes) {
    WindowState state = windowOf(8, 8);
    std::vector<std::uint8_t> pixels = solidPixels(2, 2, {1, 2, 3, 255});
    wm::pushPixels(state, 2, 2, pixels.data());
    EXPECT_TRUE(state.dirty);
    state.dirty = false;
    wm::pushPixels(state, 2, 2, pixels.data());
    EXPECT_FALSE(state.dirty);
    pixels[5] = 9;
    wm::pushPixels(state, 2, 2, pixels.data());
    EXPECT_TRUE(state.dirty);
    state.dirty = false;
    wm::pushPixels(state, 4, 1, pixels.data());  // same bytes, other shape
    EXPECT_TRUE(state.dirty);
    state.dirty = false;
    wm::setClearColour(state, 0, 0, 0);
    EXPECT_FALSE(state.dirty);
    wm::setClearColour(state, 0, 0, 1);
    EXPECT_TRUE(state.dirty);
    state.dirty = false;
    wm::pushPixels(state, 0, 0, nullptr);
    EXPECT_TRUE(state.dirty);
    EXPECT_FALSE(wm::hasPushedImage(state));
}

struct MouseCase {
    const char* name;
    int clientWidth, clientHeight;
    int imageWidth, imageHeight;  // 0: nothing pushed (requested size 100 × 50 is the logical size)
    int clientX, clientY;
    int expectedX, expectedY;
};

void PrintTo(const MouseCase& c, std::ostream* out) { *out << c.name; }

class MouseMapping : public ::testing::TestWithParam<MouseCase> {};

TEST_P(MouseMapping, ReportsLogicalCoordinates) {
    const MouseCase& c = GetParam();
    WindowState state = windowOf(100, 50);
    wm::resizeClient(state, c.clientWidth, c.clientHeight);
    std::vector<std::uint8_t> pixels = solidPixels(c.imageWidth, c.imageHeight, {0, 0, 0, 255});
    if (c.imageWidth > 0) wm::pushPixels(state, c.imageWidth, c.imageHeight, pixels.data());
    wm::updateMousePosition(state, c.clientX, c.clientY);
    EXPECT_EQ(state.mouseX, c.expectedX) << c.name;
    EXPECT_EQ(state.mouseY, c.expectedY) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Positions, MouseMapping,
    ::testing::Values(
        // 320 × 200 in 640 × 480: drawn 640 × 400 from y = 40.
        MouseCase{"top left of picture", 640, 480, 320, 200, 0, 40, 0, 0},
        MouseCase{"bottom right of picture", 640, 480, 320, 200, 639, 439, 319, 199},
        // x: (319 + 100 × 319) / 639 = 50.4 -> 50; y: (199 + 60 × 199) / 399 = 30.4 -> 30.
        MouseCase{"inside rounds to nearest", 640, 480, 320, 200, 100, 100, 50, 30},
        MouseCase{"over top bar clamps to top edge", 640, 480, 320, 200, 100, 10, 50, 0},
        MouseCase{"over bottom bar clamps to bottom edge", 640, 480, 320, 200, 600, 475, 300, 199},
        MouseCase{"outside the window clamps", 640, 480, 320, 200, -50, 900, 0, 199},
        MouseCase{"side bars clamp", 800, 400, 320, 200, 5, 200, 0, 100},
        MouseCase{"no image uses requested size", 200, 100, 0, 0, 199, 99, 99, 49},
        MouseCase{"one pixel wide logical screen", 640, 480, 1, 200, 300, 240, 0, 100}),
    [](const auto& info) {
        std::string name = info.param.name;
        for (char& c : name) if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

TEST(Input, FocusLossReleasesHeldKeysAndButtons) {
    WindowState state = windowOf(10, 10);
    wm::gainFocus(state);
    wm::setKeyFlag(state, 0x41, true);
    wm::setKeyFlag(state, 0x26, true);
    EXPECT_TRUE(wm::setMouseButton(state, wm::kRightButton, true));
    wm::loseFocus(state);
    EXPECT_FALSE(state.focused);
    EXPECT_FALSE(state.keys[0x41]);
    EXPECT_FALSE(state.keys[0x26]);
    EXPECT_FALSE(state.mouseButtons[wm::kRightButton]);
}

TEST(Input, KeyCodesFrom256AndUnknownButtonsAreIgnored) {
    WindowState state = windowOf(10, 10);
    wm::setKeyFlag(state, 256, true);
    wm::setKeyFlag(state, 0xFFFFFFFF, true);
    wm::setKeyFlag(state, 255, true);
    EXPECT_TRUE(state.keys[255]);
    EXPECT_FALSE(wm::setMouseButton(state, 3, true));
    EXPECT_FALSE(wm::setMouseButton(state, -1, true));
    EXPECT_TRUE(wm::setMouseButton(state, wm::kLeftButton, true));
    EXPECT_TRUE(wm::setMouseButton(state, wm::kMiddleButton, true));
    EXPECT_TRUE(wm::setMouseButton(state, wm::kLeftButton, false));  // middle still down
    EXPECT_FALSE(wm::setMouseButton(state, wm::kMiddleButton, false));
}

TEST(Input, CurrentWindowIsForgottenWhenDestroyed) {
    WindowState first = windowOf(1, 1), second = windowOf(1, 1);
    wm::makeCurrent(&first);
    wm::forgetWindow(&second);
    EXPECT_EQ(wm::currentWindow(), &first);
    wm::forgetWindow(&first);
    EXPECT_EQ(wm::currentWindow(), nullptr);
}

}  // namespace
