// Private to graphics/: splitting rows over short-lived worker threads, and the blend rule.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace quillfen::mirel_detail {

// How a row count is divided among threads.
enum class RowSplit {
    // ceil(rows / threads) rows each, the last thread taking what remains.
    Chunked,
    // rows / threads each, the first (rows mod threads) threads taking one row more.
    Balanced,
    // Small runs of rows handed out from a shared counter to whichever thread asks first, so a
    // thread that starts late (or not at all) costs no waiting: for work whose result does not
    // depend on which thread does which row.
    Claimed,
};

// The work of one row range: called as work(context, firstRow, endRow).
using RowWork = void (*)(void* context, int firstRow, int endRow);

// Runs work over [0, rows) on `threads` short-lived threads (the calling thread being one of
// them) and returns when all rows are done. Fewer than 2 threads (or a single row) runs inline.
// If the system refuses a new thread, the threads there are do its share, so the work is
// always complete on return.
void runRowRanges(int rows, int threads, RowSplit split, RowWork work, void* context);

// The same for any callable taking (firstRow, endRow), without allocating or type erasure
// beyond one function pointer.
template <typename Work>
void forEachRowRange(int rows, int threads, RowSplit split, Work&& work) {
    using Callable = std::remove_reference_t<Work>;
    runRowRanges(rows, threads, split,
                 [](void* context, int firstRow, int endRow) { (*static_cast<Callable*>(context))(firstRow, endRow); },
                 const_cast<void*>(static_cast<const void*>(&work)));
}

// The thread setting limited to the row count, at least 1.
int threadsForRows(int rows);

// A double truncated toward zero to int, saturating at the int range (NaN gives 0).
int truncateToInt(double value);

// x / 255 for 0 <= x <= 65025 (every product of two bytes), without a division.
inline std::uint32_t divideBy255(std::uint32_t x) {
    return (x + 1 + (x >> 8)) >> 8;
}

// The blend rule for one pixel: alpha 0 leaves the target, 255 copies, anything else mixes the
// colour channels by alpha (truncating) and accumulates the target alpha. The general formulas
// give exactly those results at 0 and 255 too, so there is no branch: source alpha is noise
// to the branch predictor in typical sprites' soft edges. The accumulated alpha never exceeds
// 255 (its largest value over all byte pairs), so it needs no clamp.
inline void blendPixel(std::uint8_t* target, const std::uint8_t* source) {
    const std::uint32_t alpha = source[3], inverse = 255 - alpha;
    const std::uint32_t targetAlpha = target[3];
    target[0] = static_cast<std::uint8_t>(divideBy255(target[0] * inverse + source[0] * alpha));
    target[1] = static_cast<std::uint8_t>(divideBy255(target[1] * inverse + source[1] * alpha));
    target[2] = static_cast<std::uint8_t>(divideBy255(target[2] * inverse + source[2] * alpha));
    target[3] = static_cast<std::uint8_t>(targetAlpha + alpha - divideBy255(targetAlpha * alpha));
}

// Which code blends a row: the fastest the processor has, the SSE2 one (where the build has
// SSE2), or one pixel at a time. All give the same bytes; the choice exists for tests.
enum class BlendPath { Best, Sse2, Scalar };

// The blend rule over `count` pixels of source onto target (blend_row.cpp).
void blendRow(std::uint8_t* target, const std::uint8_t* source, std::size_t count, BlendPath path = BlendPath::Best);

// blendPixel over `count` pixels, one at a time: the reference the vector paths must match.
void blendRowScalar(std::uint8_t* target, const std::uint8_t* source, std::size_t count);

}  // namespace quillfen::mirel_detail
