// Private to graphics/: splitting rows over short-lived worker threads, and the blend rule.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>

namespace quillfen::mirel_detail {

// How a row count is divided among threads.
enum class RowSplit {
    // ceil(rows / threads) rows each, the last thread taking what remains.
    Chunked,
    // rows / threads each, the first (rows mod threads) threads taking one row more.
    Balanced,
};

// Runs work(firstRow, endRow) over [0, rows) on `threads` disjoint ranges and returns when all
// are done. Fewer than 2 threads (or a single row) runs inline. One range runs on the calling
// thread; if the system refuses a new thread, its range runs inline too, so the work is always
// complete on return.
void forEachRowRange(int rows, int threads, RowSplit split, const std::function<void(int, int)>& work);

// The thread setting limited to the row count, at least 1.
int threadsForRows(int rows);

// A double truncated toward zero to int, saturating at the int range (NaN gives 0).
int truncateToInt(double value);

// The blend rule for one pixel: alpha 0 leaves the target, 255 copies, anything else mixes the
// colour channels by alpha (truncating) and accumulates the target alpha.
inline void blendPixel(std::uint8_t* target, const std::uint8_t* source) {
    const std::uint32_t alpha = source[3];
    if (alpha == 0) return;
    if (alpha == 255) {
        target[0] = source[0];
        target[1] = source[1];
        target[2] = source[2];
        target[3] = 255;
        return;
    }
    const std::uint32_t inverse = 255 - alpha;
    // Division by the constant 255 compiles to a multiply and a shift.
    target[0] = static_cast<std::uint8_t>((target[0] * inverse + source[0] * alpha) / 255u);
    target[1] = static_cast<std::uint8_t>((target[1] * inverse + source[1] * alpha) / 255u);
    target[2] = static_cast<std::uint8_t>((target[2] * inverse + source[2] * alpha) / 255u);
    const std::uint32_t targetAlpha = target[3];
    target[3] = static_cast<std::uint8_t>(std::min<std::uint32_t>(255u, targetAlpha + alpha - (targetAlpha * alpha) / 255u));
}

}  // namespace quillfen::mirel_detail
