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

// The two source rows that one destination row of a bilinear filter mixes, each already mixed
// across. Consecutive destination rows mostly sample the same pair, or move down by one (the
// lower row becoming the upper), so a worker keeps the pair and mixes a row across only when
// it is new.
class MixedRowPair {
public:
    bool allocate(std::size_t values) {
        try {
            m_upper.resize(values);
            m_lower.resize(values);
        } catch (const std::bad_alloc&) {
            return false;
        }
        return true;
    }

    // Makes upper() hold source row `upperRow` and lower() row `lowerRow`, calling
    // mixAcross(row, buffer) for a row not already held.
    template <typename MixAcross>
    void bring(std::int64_t upperRow, std::int64_t lowerRow, MixAcross& mixAcross) {
        if (m_upperRow != upperRow) {
            if (m_lowerRow == upperRow) {
                std::swap(m_upper, m_lower);
                std::swap(m_upperRow, m_lowerRow);
            } else {
                mixAcross(upperRow, m_upper);
                m_upperRow = upperRow;
            }
        }
        if (m_lowerRow != lowerRow) {
            mixAcross(lowerRow, m_lower);
            m_lowerRow = lowerRow;
        }
    }

    const double* upper() const { return m_upper.data(); }
    const double* lower() const { return m_lower.data(); }

private:
    std::vector<double> m_upper, m_lower;
    std::int64_t m_upperRow = -1, m_lowerRow = -1;
};

// out[i] = top[i] × (1 − fy) + bottom[i] × fy + offset, truncated and saturated to a byte: the
// last step of both bilinear filters, which mix two rows already mixed across. The offset
// turns truncation into rounding (0.5) and carries a tiny nudge that keeps a value that is
// whole (or an exact half) in exact arithmetic from falling one lower through rounding noise.
void mixRowsToBytes(const double* top, const double* bottom, double fy, double offset, std::uint8_t* out, std::size_t count) {
    std::size_t index = 0;
#if defined(__SSE2__)
    // Four values at a time, two to a register; the same operations in the same order as
    // below, and the saturating packs do the clamp.
    const __m128d topWeight = _mm_set1_pd(1 - fy), bottomWeight = _mm_set1_pd(fy), added = _mm_set1_pd(offset);
    for (; index + 4 <= count; index += 4) {
        const __m128d first = _mm_add_pd(
            _mm_add_pd(_mm_mul_pd(_mm_loadu_pd(top + index), topWeight), _mm_mul_pd(_mm_loadu_pd(bottom + index), bottomWeight)), added);
        const __m128d second = _mm_add_pd(_mm_add_pd(_mm_mul_pd(_mm_loadu_pd(top + index + 2), topWeight),
                                                     _mm_mul_pd(_mm_loadu_pd(bottom + index + 2), bottomWeight)),
                                          added);
        const __m128i values = _mm_unpacklo_epi64(_mm_cvttpd_epi32(first), _mm_cvttpd_epi32(second));
        const __m128i words = _mm_packs_epi32(values, values);
        const std::int32_t packed = _mm_cvtsi128_si32(_mm_packus_epi16(words, words));
        std::memcpy(out + index, &packed, 4);
    }
#endif
    // Values stay within a little of [0, 255] (the upscale's edge extrapolation), so the
    // conversion is safe before the clamp.
    for (; index < count; ++index) {
        const int value = static_cast<int>(top[index] * (1 - fy) + bottom[index] * fy + offset);
        out[index] = static_cast<std::uint8_t>(value < 0 ? 0 : value > 255 ? 255 : value);
    }
}

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
        MixedRowPair rows;
        if (!rows.allocate(rowValues)) {
            outOfMemory = true;
            return;
        }
        auto mixAcross = [&](std::int64_t sourceRow, std::vector<double>& out) {
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
            rows.bring(row.first, row.second, mixAcross);
            mixRowsToBytes(rows.upper(), rows.lower(), row.weight, 1e-7, to + static_cast<std::size_t>(y) * rowValues, rowValues);
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

    const std::size_t rowValues = static_cast<std::size_t>(width) * 4;

    // Grid pixels are never written, and every other pixel reads only grid pixels, so rows can
    // be smoothed in place and in parallel. As in the upscale, the filter is separable: each
    // worker mixes a grid row across once (exact weights offset / span, so every value is
    // within rounding noise of the exact one) and keeps the last two for the rows between.
    auto smoothRows = [&](int first, int end) {
        MixedRowPair rows;
        if (!rows.allocate(rowValues)) return;  // this worker's rows keep their pixels
        auto mixAcross = [&](std::int64_t gridRow, std::vector<double>& out) {
            const std::uint8_t* row = pixels + static_cast<std::size_t>(gridRow * width * 4);
            double* value = out.data();
            for (const GridSpan& column : columns) {
                const double fraction = column.weight * column.inverseSpan;
                const std::uint8_t* left = row + static_cast<std::size_t>(column.first) * 4;
                const std::uint8_t* right = row + static_cast<std::size_t>(column.second) * 4;
                for (int channel = 0; channel < 4; ++channel) *value++ = left[channel] * (1 - fraction) + right[channel] * fraction;
            }
        };
        for (std::int64_t y = first; y < end; ++y) {
            const GridSpan row = gridSpan(y, block, height);
            rows.bring(row.first, row.second, mixAcross);
            std::uint8_t* out = pixels + static_cast<std::size_t>(y * width * 4);
            constexpr double kRoundHalfUp = 0.5 + 1e-11;  // true fractions are at least 1 / span² from a half
            if (row.first != y) {
                mixRowsToBytes(rows.upper(), rows.lower(), row.weight * row.inverseSpan, kRoundHalfUp, out, rowValues);
                continue;
            }
            // A grid row: only the pixels between its grid columns change.
            for (std::size_t x = 0; x < columns.size(); ++x) {
                if (columns[x].first == static_cast<std::int64_t>(x)) continue;
                for (std::size_t channel = 0; channel < 4; ++channel)
                    out[x * 4 + channel] = static_cast<std::uint8_t>(static_cast<int>(rows.upper()[x * 4 + channel] + kRoundHalfUp));
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
