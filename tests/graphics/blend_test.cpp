// The vector blend paths against the blend rule written out plainly, and the row splitter that
// hands rows to worker threads.
#include "graphics/mirel_image.h"
#include "graphics/mirel_internal.h"
#include "graphics_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <vector>

namespace quillfen {
namespace {

using namespace testing_support;
using mirel_detail::BlendPath;

// The blend rule exactly as stated for game authors, divisions and clamp included.
void referenceBlend(std::uint8_t* target, const std::uint8_t* source) {
    const int alpha = source[3];
    if (alpha == 0) return;
    if (alpha == 255) {
        for (int channel = 0; channel < 4; ++channel) target[channel] = source[channel];
        return;
    }
    for (int channel = 0; channel < 3; ++channel) target[channel] = static_cast<std::uint8_t>((target[channel] * (255 - alpha) + source[channel] * alpha) / 255);
    target[3] = static_cast<std::uint8_t>(std::min(255, target[3] + alpha - target[3] * alpha / 255));
}

constexpr BlendPath kPaths[] = {BlendPath::Best, BlendPath::Sse2, BlendPath::Scalar};
const char* pathName(BlendPath path) { return path == BlendPath::Best ? "best" : path == BlendPath::Sse2 ? "sse2" : "scalar"; }

TEST(BlendPaths, MatchTheRuleForEveryTargetSourceAndAlpha) {
    // One row per (source value, alpha): pixel t has red t, green 255 - t, blue t ^ 0x5a and alpha
    // t, so red alone meets every (t, s, a) triple and the alpha lane every (target alpha, a) pair.
    // The row starts one pixel into the buffer, so vector loads are unaligned, and 256 pixels
    // leave no tail; the tails have a test of their own below.
    std::vector<std::uint8_t> targetRow(257 * 4), sourceRow(257 * 4), expected(256 * 4);
    for (BlendPath path : kPaths) {
        int mismatches = 0;
        for (int sourceValue = 0; sourceValue < 256; ++sourceValue)
            for (int alpha = 0; alpha < 256; ++alpha) {
                for (int t = 0; t < 256; ++t) {
                    std::uint8_t* target = &targetRow[(1 + t) * 4];
                    const std::uint8_t pixel[4] = {static_cast<std::uint8_t>(t), static_cast<std::uint8_t>(255 - t),
                                                   static_cast<std::uint8_t>(t ^ 0x5a), static_cast<std::uint8_t>(t)};
                    std::copy(pixel, pixel + 4, target);
                    std::copy(pixel, pixel + 4, &expected[t * 4]);
                    std::uint8_t* source = &sourceRow[(1 + t) * 4];
                    source[0] = static_cast<std::uint8_t>(sourceValue);
                    source[1] = static_cast<std::uint8_t>(255 - sourceValue);
                    source[2] = static_cast<std::uint8_t>(sourceValue ^ t);
                    source[3] = static_cast<std::uint8_t>(alpha);
                    referenceBlend(&expected[t * 4], source);
                }
                mirel_detail::blendRow(&targetRow[4], &sourceRow[4], 256, path);
                if (!std::equal(expected.begin(), expected.end(), targetRow.begin() + 4) && ++mismatches <= 3)
                    ADD_FAILURE() << pathName(path) << ": source value " << sourceValue << ", alpha " << alpha;
            }
        EXPECT_EQ(mismatches, 0) << pathName(path);
    }
}

// A sprite-like row: runs of clear, opaque and partly covered pixels of random lengths, so that
// the vector paths meet whole groups of each kind and groups that mix them.
std::vector<std::uint8_t> spriteRow(std::size_t pixels, std::uint32_t seed) {
    std::vector<std::uint8_t> row(pixels * 4);
    std::uint32_t state = seed;
    auto next = [&state] {
        state = state * 1664525u + 1013904223u;
        return state >> 8;
    };
    std::size_t index = 0;
    while (index < pixels) {
        const std::uint32_t kind = next() % 3, length = 1 + next() % 13;
        for (std::uint32_t step = 0; step < length && index < pixels; ++step, ++index) {
            for (int channel = 0; channel < 3; ++channel) row[index * 4 + channel] = static_cast<std::uint8_t>(next());
            row[index * 4 + 3] = kind == 0 ? 0 : kind == 1 ? 255 : static_cast<std::uint8_t>(next());
        }
    }
    return row;
}

TEST(BlendPaths, EveryStartAndLengthGivesTheRuleIncludingTails) {
    const std::vector<std::uint8_t> source = spriteRow(80, 7), original = spriteRow(80, 8);
    for (BlendPath path : kPaths)
        for (std::size_t first = 0; first < 9; ++first)
            for (std::size_t count = 0; first + count <= 80; count += (count < 20 ? 1 : 7)) {
                std::vector<std::uint8_t> target = original, expected = original;
                for (std::size_t index = first; index < first + count; ++index) referenceBlend(&expected[index * 4], &source[index * 4]);
                mirel_detail::blendRow(&target[first * 4], &source[first * 4], count, path);
                ASSERT_EQ(target, expected) << pathName(path) << ": first " << first << ", count " << count;
            }
}

// Blits of odd-sized sprite images at odd and negative positions against the rule applied
// pixel by pixel, at several thread settings. The first case is large enough to be split over
// threads.
struct BlitCase {
    int targetWidth, targetHeight, sourceWidth, sourceHeight, x, y;
};

class BlendedBlit : public ::testing::TestWithParam<BlitCase> {};

TEST_P(BlendedBlit, MatchesTheRuleWhateverTheThreadSetting) {
    const BlitCase& test = GetParam();
    auto makeSprite = [](int width, int height, std::uint32_t seed) {
        auto image = makeImage(width, height);
        const std::vector<std::uint8_t> bytes = spriteRow(static_cast<std::size_t>(width) * height, seed);
        std::copy(bytes.begin(), bytes.end(), image->pixels.get());
        return image;
    };
    const auto original = makeSprite(test.targetWidth, test.targetHeight, 21);
    const auto source = makeSprite(test.sourceWidth, test.sourceHeight, 22);
    auto expected = copyImage(*original);
    for (int sy = 0; sy < test.sourceHeight; ++sy)
        for (int sx = 0; sx < test.sourceWidth; ++sx) {
            const int tx = test.x + sx, ty = test.y + sy;
            if (tx < 0 || ty < 0 || tx >= test.targetWidth || ty >= test.targetHeight) continue;
            referenceBlend(expected->pixels.get() + pixelOffset(*expected, tx, ty), source->pixels.get() + pixelOffset(*source, sx, sy));
        }
    for (int threads : {1, 2, 6}) {
        ThreadSetting setting(threads);
        auto target = copyImage(*original);
        blitImage(*target, *source, test.x, test.y, Blend::Alpha, 1, 0);
        EXPECT_TRUE(pixelBytes(*target) == pixelBytes(*expected)) << threads << " threads";
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, BlendedBlit,
                         ::testing::Values(BlitCase{613, 411, 601, 397, 7, 5},  // 238597 pixels: split over threads
                                           BlitCase{613, 411, 601, 397, -3, -2}, BlitCase{97, 61, 45, 33, 70, 40},
                                           BlitCase{31, 17, 31, 17, 0, 0}, BlitCase{5, 3, 200, 100, -101, -50}));

TEST(OpaqueBlit, WholeRowsAndClippedRowsCopyTheSameBytesWhateverTheThreadSetting) {
    const auto original = noiseImage(640, 400, 41);
    const auto source = noiseImage(640, 400, 42);
    for (int threads : {1, 2, 6, 40}) {
        ThreadSetting setting(threads);
        auto whole = copyImage(*original);
        blitImage(*whole, *source, 0, 0, Blend::Copy, 1, 0);
        EXPECT_TRUE(pixelBytes(*whole) == pixelBytes(*source)) << threads << " threads";

        auto shifted = copyImage(*original);
        blitImage(*shifted, *source, 3, -1, Blend::Copy, 1, 0);
        bool same = true;
        for (int y = 0; y < 400 && same; ++y)
            for (int x = 0; x < 640 && same; ++x) {
                const bool covered = x >= 3 && y < 399;
                same = pixelAt(*shifted, x, y) == (covered ? pixelAt(*source, x - 3, y + 1) : pixelAt(*original, x, y));
            }
        EXPECT_TRUE(same) << threads << " threads";
    }
}

// ---- the row splitter ----------------------------------------------------------------------
TEST(RowRanges, EverySplitVisitsEveryRowOnceForAnyThreadCount) {
    using mirel_detail::RowSplit;
    for (RowSplit split : {RowSplit::Chunked, RowSplit::Balanced, RowSplit::Claimed})
        for (int rows : {1, 2, 7, 100, 545})
            for (int threads : {0, 1, 2, 3, 6, 17, 40}) {
                std::vector<std::atomic<int>> visits(static_cast<std::size_t>(rows));
                std::atomic<int> calls{0};
                mirel_detail::forEachRowRange(rows, threads, split, [&](int first, int end) {
                    calls.fetch_add(1);
                    for (int row = first; row < end; ++row) visits[static_cast<std::size_t>(row)].fetch_add(1);
                });
                int wrong = 0;
                for (const auto& count : visits) wrong += count.load() != 1;
                EXPECT_EQ(wrong, 0) << "split " << static_cast<int>(split) << ", rows " << rows << ", threads " << threads;
                if (split != RowSplit::Claimed) {
                    EXPECT_LE(calls.load(), std::max(1, std::min(threads, rows)));
                }
            }
}

TEST(RowRanges, FixedSplitsGiveEachThreadTheRangesOfTheirRule) {
    using mirel_detail::RowSplit;
    // 10 rows over 4 threads: chunked is 3, 3, 3, 1; balanced is 3, 3, 2, 2.
    for (auto [split, sizes] : {std::pair{RowSplit::Chunked, std::vector<int>{3, 3, 3, 1}},
                                std::pair{RowSplit::Balanced, std::vector<int>{3, 3, 2, 2}}}) {
        std::vector<std::atomic<int>> sizeAt(10);
        mirel_detail::forEachRowRange(10, 4, split, [&](int first, int end) { sizeAt[static_cast<std::size_t>(first)].store(end - first); });
        std::vector<int> seen;
        for (const auto& size : sizeAt)
            if (size.load() != 0) seen.push_back(size.load());
        EXPECT_EQ(seen, sizes) << static_cast<int>(split);
    }
}

}  // namespace
}  // namespace quillfen
