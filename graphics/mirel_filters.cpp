// Whole-image filters: dither, mirror, bilinear upscale, block smoothing and trim. Each one that
// runs on worker threads writes disjoint destination rows and reads only what no worker
// writes, so its result is the same whatever the thread setting.
#include "graphics/mirel_image.h"

#include "graphics/mirel_internal.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace quillfen {

namespace {

using mirel_detail::forEachRowRange;
using mirel_detail::RowSplit;
using mirel_detail::threadsForRows;

bool hasPixels(const MirelImage* image) {
    return image && image->pixels && image->width > 0 && image->height > 0;
}

// Replaces the image by one twice as wide and high in which each pixel is a 2 × 2 block.
// False (image untouched) when the doubled image would be too large.
bool doubleImage(MirelImage& image) {
    const std::int64_t width = std::int64_t{image.width} * 2, height = std::int64_t{image.height} * 2;
    auto doubled = allocatePixels(width, height);
    if (!doubled) return false;
    const std::uint8_t* old = image.pixels.get();
    const std::size_t oldRowBytes = static_cast<std::size_t>(image.width) * 4, newRowBytes = oldRowBytes * 2;
    for (std::int64_t y = 0; y < image.height; ++y) {
        const std::uint8_t* from = old + static_cast<std::size_t>(y) * oldRowBytes;
        std::uint8_t* to = doubled.get() + static_cast<std::size_t>(y) * 2 * newRowBytes;
        for (std::size_t x = 0; x < oldRowBytes; x += 4) {
            std::memcpy(to + x * 2, from + x, 4);
            std::memcpy(to + x * 2 + 4, from + x, 4);
        }
        std::memcpy(to + newRowBytes, to, newRowBytes);  // the second row of each block
    }
    image.pixels = std::move(doubled);
    image.width = static_cast<std::int32_t>(width);
    image.height = static_cast<std::int32_t>(height);
    return true;
}

}  // namespace

void ditherImage(MirelImage* image, int amount, bool doubleSize) {
    if (!image) return;
    if (doubleSize && hasPixels(image) && !doubleImage(*image)) return;
    if (amount <= 0 || !hasPixels(image)) return;

    // 2 × amount + 1 fits in 32 unsigned bits for every positive int.
    const std::uint32_t modulus = 2u * static_cast<std::uint32_t>(amount) + 1u;
    // The remainder through a multiplication by the reciprocal instead of a division per pixel:
    // the quotient estimate is off by at most one, which the two corrections repair.
    const double reciprocal = 1.0 / modulus;
    const int width = image->width;
    std::uint8_t* pixels = image->pixels.get();
    auto ditherRows = [&](int first, int end) {
        for (int y = first; y < end; ++y) {
            std::uint8_t* pixel = pixels + pixelOffset(*image, 0, y);
            const std::uint32_t rowHash = static_cast<std::uint32_t>(y) * 689287499u;
            for (int x = 0; x < width; ++x, pixel += 4) {
                // A pure hash of the position: the noise is the same however rows are split.
                const std::uint32_t hash = ((static_cast<std::uint32_t>(x) * 92837111u) ^ rowHash) * 1664525u + 1013904223u;
                const std::int64_t quotient = static_cast<std::int64_t>(hash * reciprocal);
                std::int64_t remainder = static_cast<std::int64_t>(hash) - quotient * modulus;
                if (remainder < 0) remainder += modulus;
                else if (remainder >= modulus) remainder -= modulus;
                const int noise = static_cast<int>(remainder - amount);
                for (int channel = 0; channel < 4; ++channel)  // alpha too: dithering roughens transparency
                    pixel[channel] = static_cast<std::uint8_t>(std::clamp(pixel[channel] + noise, 0, 255));
            }
        }
    };
    forEachRowRange(image->height, threadsForRows(image->height), RowSplit::Chunked, ditherRows);
}

void mirrorMirelImage(MirelImage* image, MirrorAxis axis) {
    if (!hasPixels(image)) return;
    std::uint8_t* pixels = image->pixels.get();
    const std::size_t rowBytes = static_cast<std::size_t>(image->width) * 4;
    if (axis == MirrorAxis::Horizontal) {
        for (int y = 0; y < image->height; ++y) {
            std::uint8_t* row = pixels + pixelOffset(*image, 0, y);
            for (std::size_t left = 0, right = rowBytes - 4; left < right; left += 4, right -= 4)
                std::swap_ranges(row + left, row + left + 4, row + right);
        }
        return;
    }
    for (int y = 0; y < image->height / 2; ++y)  // an odd middle row stays where it is
        std::swap_ranges(pixels + pixelOffset(*image, 0, y), pixels + pixelOffset(*image, 0, y) + rowBytes,
                         pixels + pixelOffset(*image, 0, image->height - 1 - y));
}

namespace {

// Where destination column (or row) d of an upscale samples: the two source indices around it
// and the weight of the second. The first index is trunc(s) clamped, so at the left and top
// edges, where s is slightly negative, the weight is negative and the filter extrapolates a
// little; results are clamped to bytes.
struct Sample {
    int first = 0, second = 0;
    double weight = 0;
};

Sample upscaleSample(int destination, double factor, int size) {
    const double position = (destination + 0.5) / factor - 0.5;
    Sample sample;
    sample.first = std::clamp(static_cast<int>(position), 0, size - 1);
    sample.second = std::clamp(sample.first + 1, 0, size - 1);
    sample.weight = position - sample.first;
    return sample;
}

}  // namespace

void upscaleMirelImage(MirelImage* image, double factor) {
    if (!hasPixels(image) || !(factor > 1.0)) return;
    const double newWidth = std::trunc(factor * image->width), newHeight = std::trunc(factor * image->height);
    if (!(newWidth <= 2147483647.0 && newHeight <= 2147483647.0)) return;
    auto enlarged = allocatePixels(static_cast<std::int64_t>(newWidth), static_cast<std::int64_t>(newHeight));
    if (!enlarged) return;
    const int width = static_cast<int>(newWidth), height = static_cast<int>(newHeight);

    // Tables as long as a row, per call and per worker: running out of memory for them leaves
    // the image as it was, like every other refusal here.
    std::vector<Sample> columns;
    try {
        columns.resize(static_cast<std::size_t>(width));
    } catch (const std::bad_alloc&) {
        return;
    }
    for (int x = 0; x < width; ++x) columns[static_cast<std::size_t>(x)] = upscaleSample(x, factor, image->width);
    std::atomic<bool> outOfMemory{false};
    const MirelImage& source = *image;
    const std::size_t rowValues = static_cast<std::size_t>(width) * 4;
    std::uint8_t* to = enlarged.get();

    // The filter is separable: p00 (1 - fx)(1 - fy) + p10 fx (1 - fy) + p01 (1 - fx) fy + p11 fx fy
    // is the row mix (1 - fy) top + fy bottom of the two source rows already mixed across by fx.
    // A source row mixed across serves every destination row that samples it, so each worker
    // keeps the last two.
    auto scaleRows = [&](int first, int end) {
        std::vector<double> upper, lower;
        try {
            upper.resize(rowValues);
            lower.resize(rowValues);
        } catch (const std::bad_alloc&) {
            outOfMemory = true;
            return;
        }
        int upperRow = -1, lowerRow = -1;
        auto mixAcross = [&](int sourceRow, std::vector<double>& out) {
            const std::uint8_t* row = source.pixels.get() + pixelOffset(source, 0, sourceRow);
            double* value = out.data();
            for (const Sample& column : columns) {
                const std::uint8_t* left = row + static_cast<std::size_t>(column.first) * 4;
                const std::uint8_t* right = row + static_cast<std::size_t>(column.second) * 4;
                for (int channel = 0; channel < 4; ++channel)
                    *value++ = left[channel] * (1 - column.weight) + right[channel] * column.weight;
            }
        };
        for (int y = first; y < end; ++y) {
            const Sample row = upscaleSample(y, factor, source.height);
            if (upperRow != row.first) {
                if (lowerRow == row.first) {
                    std::swap(upper, lower);
                    std::swap(upperRow, lowerRow);
                } else {
                    mixAcross(row.first, upper);
                    upperRow = row.first;
                }
            }
            if (lowerRow != row.second) {
                mixAcross(row.second, lower);
                lowerRow = row.second;
            }
            std::uint8_t* out = to + static_cast<std::size_t>(y) * rowValues;
            // Plain pointers: the byte stores could otherwise alias the vectors' own fields.
            const double* top = upper.data();
            const double* bottom = lower.data();
            const double fy = row.weight;
            std::size_t index = 0;
#if defined(__SSE2__)
            // One pixel at a time, two channels to a register; the same operations in the same
            // order as below, and the saturating packs do the clamp.
            const __m128d topWeight = _mm_set1_pd(1 - fy), bottomWeight = _mm_set1_pd(fy), nudge = _mm_set1_pd(1e-7);
            for (; index + 4 <= rowValues; index += 4) {
                const __m128d first = _mm_add_pd(_mm_add_pd(_mm_mul_pd(_mm_loadu_pd(top + index), topWeight),
                                                            _mm_mul_pd(_mm_loadu_pd(bottom + index), bottomWeight)), nudge);
                const __m128d second = _mm_add_pd(_mm_add_pd(_mm_mul_pd(_mm_loadu_pd(top + index + 2), topWeight),
                                                             _mm_mul_pd(_mm_loadu_pd(bottom + index + 2), bottomWeight)), nudge);
                const __m128i values = _mm_unpacklo_epi64(_mm_cvttpd_epi32(first), _mm_cvttpd_epi32(second));
                const __m128i words = _mm_packs_epi32(values, values);
                const std::int32_t pixel = _mm_cvtsi128_si32(_mm_packus_epi16(words, words));
                std::memcpy(out + index, &pixel, 4);
            }
#endif
            for (; index < rowValues; ++index) {
                // The nudge keeps a value that is whole in exact arithmetic (a flat area, a weight
                // of exactly 0.25) from truncating one lower through rounding noise. Values stay
                // within a little of [0, 255] (the edge extrapolation), so the conversion is safe
                // before the clamp.
                const int value = static_cast<int>(top[index] * (1 - fy) + bottom[index] * fy + 1e-7);
                out[index] = static_cast<std::uint8_t>(value < 0 ? 0 : value > 255 ? 255 : value);
            }
        }
    };
    const int threads = std::min(mirelThreadCount(), height);
    forEachRowRange(height, threads, RowSplit::Balanced, scaleRows);
    if (outOfMemory) return;
    image->pixels = std::move(enlarged);
    image->width = width;
    image->height = height;
}

namespace {

// Where a column (or row) of block smoothing takes its two grid lines from: the grid line at or
// before it, the next one (or the same one again past the edge) and its weight `offset / span`,
// kept as integers so the interpolation is exact. A zero span gives weight 0.
struct GridSpan {
    std::int64_t first = 0, second = 0;
    double weight = 0, span = 1;
    double inverseSpan = 1;
};

GridSpan gridSpan(std::int64_t position, std::int64_t block, std::int64_t size) {
    GridSpan grid;
    const std::int64_t offset = position % block;
    grid.first = position - offset;
    grid.second = grid.first + block < size ? grid.first + block : grid.first;
    if (grid.second != grid.first) {
        grid.weight = static_cast<double>(offset);
        grid.span = static_cast<double>(grid.second - grid.first);
        grid.inverseSpan = 1.0 / grid.span;
    }
    return grid;
}

}  // namespace

void bilinearInPlace(MirelImage* image) {
    const int threads = mirelThreadCount(), block = mirelAccuracy();
    if (threads <= 0 || block <= 0 || !hasPixels(image)) return;
    const std::int64_t width = image->width, height = image->height;
    std::uint8_t* pixels = image->pixels.get();
    std::vector<GridSpan> columns;
    try {
        columns.resize(static_cast<std::size_t>(width));
    } catch (const std::bad_alloc&) {
        return;
    }
    for (std::int64_t x = 0; x < width; ++x) columns[static_cast<std::size_t>(x)] = gridSpan(x, block, width);

    // Grid pixels are never written, and every other pixel reads only grid pixels, so rows can
    // be smoothed in place and in parallel.
    auto smoothRows = [&](int first, int end) {
        for (std::int64_t y = first; y < end; ++y) {
            const GridSpan row = gridSpan(y, block, height);
            const bool gridRow = row.first == y;
            const std::uint8_t* topRow = pixels + static_cast<std::size_t>(row.first * width * 4);
            const std::uint8_t* bottomRow = pixels + static_cast<std::size_t>(row.second * width * 4);
            std::uint8_t* out = pixels + static_cast<std::size_t>(y * width * 4);
            for (std::int64_t x = 0; x < width; ++x) {
                const GridSpan& column = columns[static_cast<std::size_t>(x)];
                if (gridRow && column.first == x) continue;
                // Integer weights over the denominator span × span: all sums are exact in a
                // double. The reciprocals are off by a few units in the last place; the tiny
                // nudge keeps an exact half from rounding down through them (true fractions are
                // at least 1 / denominator away from a half, far more than the nudge).
                const double w00 = (column.span - column.weight) * (row.span - row.weight);
                const double w10 = column.weight * (row.span - row.weight);
                const double w01 = (column.span - column.weight) * row.weight;
                const double w11 = column.weight * row.weight;
                const double scale = column.inverseSpan * row.inverseSpan;
                const std::size_t left = static_cast<std::size_t>(column.first) * 4, right = static_cast<std::size_t>(column.second) * 4;
                for (std::size_t channel = 0; channel < 4; ++channel) {
                    const double sum = topRow[left + channel] * w00 + topRow[right + channel] * w10 +
                                       bottomRow[left + channel] * w01 + bottomRow[right + channel] * w11;
                    out[static_cast<std::size_t>(x) * 4 + channel] = static_cast<std::uint8_t>(static_cast<int>(sum * scale + 0.5 + 1e-11));
                }
            }
        }
    };
    forEachRowRange(image->height, std::min(threads, image->height), RowSplit::Balanced, smoothRows);
}

void trimMirelImage(MirelImage* image, int width, int height) {
    if (!hasPixels(image) || width <= 0 || height <= 0) return;
    if (width > image->width || height > image->height) return;
    if (width == image->width && height == image->height) return;
    auto trimmed = allocatePixels(width, height);
    if (!trimmed) return;
    const std::size_t rowBytes = static_cast<std::size_t>(width) * 4;
    const MirelImage& source = *image;
    std::uint8_t* to = trimmed.get();
    auto copyRows = [&](int first, int end) {
        for (int y = first; y < end; ++y)
            std::memcpy(to + static_cast<std::size_t>(y) * rowBytes, source.pixels.get() + pixelOffset(source, 0, y), rowBytes);
    };
    forEachRowRange(height, threadsForRows(height), RowSplit::Chunked, copyRows);
    image->pixels = std::move(trimmed);
    image->width = width;
    image->height = height;
}

}  // namespace quillfen
