// Drawing one image onto another: the plain placement (row copies or the blend rule, clipped to
// both images) and the scaled and turned placement (nearest source pixel for each destination
// pixel of the turned rectangle's bounding box).
#include "graphics/mirel_image.h"

#include "graphics/mirel_internal.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <tuple>

namespace quillfen {

namespace {

using mirel_detail::blendPixel;

// Work of fewer destination pixels than this is not worth starting threads for.
constexpr std::int64_t kParallelBlitPixels = 180000;
constexpr double kRadiansPerDegree = 0.017453292;

int blitThreads(std::int64_t rows, std::int64_t columns) {
    if (rows * columns < kParallelBlitPixels) return 1;
    return static_cast<int>(std::min<std::int64_t>(mirelThreadCount(), rows));
}

// The rotation in degrees reduced to [0, 360); values within a hair of 0 or 360 count as none
// (0 is returned), so that float noise in a script's angle does not switch on the slow path.
double effectiveRotation(double rotation) {
    if (!std::isfinite(rotation)) return 0;
    double reduced = std::fmod(rotation, 360.0);
    if (reduced < 0) reduced += 360.0;
    return reduced >= 1e-5 && reduced <= 359.999 ? reduced : 0;
}

// Scale 1 without rotation: source pixel (part.x + i, part.y + j) lands on (x + i, y + j).
// Skipping the pixels that fall outside either image is the same as clipping the rectangle, so
// each visited row is one contiguous run in both images.
void placeUnscaled(MirelImage& target, const MirelImage& source, SourceRect part, int x, int y, Blend blend) {
    const std::int64_t firstColumn = std::max<std::int64_t>({0, -static_cast<std::int64_t>(x), -static_cast<std::int64_t>(part.x)});
    const std::int64_t endColumn = std::min<std::int64_t>({part.width, static_cast<std::int64_t>(target.width) - x,
                                                           static_cast<std::int64_t>(source.width) - part.x});
    const std::int64_t firstRow = std::max<std::int64_t>({0, -static_cast<std::int64_t>(y), -static_cast<std::int64_t>(part.y)});
    const std::int64_t endRow = std::min<std::int64_t>({part.height, static_cast<std::int64_t>(target.height) - y,
                                                        static_cast<std::int64_t>(source.height) - part.y});
    if (firstColumn >= endColumn || firstRow >= endRow) return;

    const int columns = static_cast<int>(endColumn - firstColumn);
    const int rows = static_cast<int>(endRow - firstRow);
    const int sourceX = static_cast<int>(part.x + firstColumn), sourceY = static_cast<int>(part.y + firstRow);
    const int targetX = static_cast<int>(x + firstColumn), targetY = static_cast<int>(y + firstRow);
    const std::size_t rowBytes = static_cast<std::size_t>(columns) * 4;

    // Rows that span both images edge to edge lie back to back in both blocks: a run of them is
    // one copy.
    const bool wholeRows = columns == source.width && columns == target.width;
    auto drawRows = [&](int first, int end) {
        const std::uint8_t* from = source.pixels.get() + pixelOffset(source, sourceX, sourceY + first);
        std::uint8_t* to = target.pixels.get() + pixelOffset(target, targetX, targetY + first);
        const std::size_t sourceStride = static_cast<std::size_t>(source.width) * 4;
        const std::size_t targetStride = static_cast<std::size_t>(target.width) * 4;
        if (blend == Blend::Copy && wholeRows) {
            std::memcpy(to, from, rowBytes * static_cast<std::size_t>(end - first));
            return;
        }
        for (int row = first; row < end; ++row, from += sourceStride, to += targetStride) {
            if (blend == Blend::Copy) std::memcpy(to, from, rowBytes);
            else mirel_detail::blendRow(to, from, static_cast<std::size_t>(columns));
        }
    };
    mirel_detail::forEachRowRange(rows, blitThreads(rows, columns), mirel_detail::RowSplit::Claimed, drawRows);
}

// The general placement. The scaled rectangle (part.width × scale by part.height × scale) has
// its top-left corner at (x, y) and turns about its centre. Each destination pixel of the
// turned rectangle's bounding box takes its centre back through the inverse turn and scale into
// the part's own coordinates; the pixel whose square holds that point is the nearest one.
void placeTransformed(MirelImage& target, const MirelImage& source, SourceRect part, int x, int y, Blend blend,
                      double scale, double rotationDegrees) {
    const double scaledWidth = part.width * scale, scaledHeight = part.height * scale;
    const double centreX = x + scaledWidth / 2, centreY = y + scaledHeight / 2;
    const double angle = rotationDegrees * kRadiansPerDegree;
    const double cosine = rotationDegrees == 0 ? 1.0 : std::cos(angle);
    const double sine = rotationDegrees == 0 ? 0.0 : std::sin(angle);

    // Half extents of the turned rectangle's bounding box.
    const double halfX = std::abs(scaledWidth / 2 * cosine) + std::abs(scaledHeight / 2 * sine);
    const double halfY = std::abs(scaledWidth / 2 * sine) + std::abs(scaledHeight / 2 * cosine);
    const double boxLeft = std::max(0.0, std::floor(centreX - halfX));
    const double boxTop = std::max(0.0, std::floor(centreY - halfY));
    const double boxRight = std::min(static_cast<double>(target.width), std::ceil(centreX + halfX));
    const double boxBottom = std::min(static_cast<double>(target.height), std::ceil(centreY + halfY));
    if (!(boxLeft < boxRight) || !(boxTop < boxBottom)) return;  // also refuses NaN boxes

    const int left = static_cast<int>(boxLeft), top = static_cast<int>(boxTop);
    const int columns = static_cast<int>(boxRight) - left, rows = static_cast<int>(boxBottom) - top;
    // Part coordinates of a destination point (px, py):
    //   u = ((px - cx) cos + (py - cy) sin) / scale + width / 2
    //   v = (-(px - cx) sin + (py - cy) cos) / scale + height / 2
    const double stepUx = cosine / scale, stepVx = -sine / scale;
    const double stepUy = sine / scale, stepVy = cosine / scale;

    auto drawRows = [&](int first, int end) {
        for (int row = first; row < end; ++row) {
            const double offsetY = top + row + 0.5 - centreY;
            const double rowU = offsetY * stepUy + part.width / 2.0;
            const double rowV = offsetY * stepVy + part.height / 2.0;
            // Along the row u and v are linear in the column, so the columns that land inside
            // the part form one interval; visit only it (widened by a column each way against
            // rounding; the exact test below still decides every pixel).
            double firstColumn = 0, endColumn = columns;
            const double baseOffset = left + 0.5 - centreX;
            for (const auto& [start, step, size] : {std::tuple{rowU + baseOffset * stepUx, stepUx, static_cast<double>(part.width)},
                                                    std::tuple{rowV + baseOffset * stepVx, stepVx, static_cast<double>(part.height)}}) {
                if (step == 0) {
                    if (!(start >= 0 && start < size)) endColumn = 0;
                    continue;
                }
                const double atZero = -start / step, atSize = (size - start) / step;
                firstColumn = std::max(firstColumn, std::floor(std::min(atZero, atSize)) - 1);
                endColumn = std::min(endColumn, std::ceil(std::max(atZero, atSize)) + 1);
            }
            if (!(firstColumn < endColumn)) continue;
            std::uint8_t* to = target.pixels.get() + pixelOffset(target, left, top + row);
            for (int column = static_cast<int>(firstColumn); column < static_cast<int>(endColumn); ++column) {
                const double offsetX = left + column + 0.5 - centreX;
                const double u = rowU + offsetX * stepUx;
                const double v = rowV + offsetX * stepVx;
                if (!(u >= 0 && u < part.width && v >= 0 && v < part.height)) continue;
                // Both are non-negative here, so truncation is the floor: the nearest pixel.
                const int sourceX = part.x + static_cast<int>(u), sourceY = part.y + static_cast<int>(v);
                if (sourceX < 0 || sourceY < 0 || sourceX >= source.width || sourceY >= source.height) continue;
                const std::uint8_t* from = source.pixels.get() + pixelOffset(source, sourceX, sourceY);
                std::uint8_t* pixel = to + static_cast<std::size_t>(column) * 4;
                if (blend == Blend::Copy) std::memcpy(pixel, from, 4);
                else blendPixel(pixel, from);
            }
        }
    };
    mirel_detail::forEachRowRange(rows, blitThreads(rows, columns), mirel_detail::RowSplit::Claimed, drawRows);
}

void placeImage(MirelImage& target, const MirelImage& source, SourceRect part, int x, int y, Blend blend,
                double scale, double rotation) {
    if (!target.pixels || !source.pixels || target.width <= 0 || target.height <= 0) return;
    if (part.width <= 0 || part.height <= 0) return;
    if (scale == 0 || !std::isfinite(scale)) return;
    const double turn = effectiveRotation(rotation);
    if (&target == &source) {
        // Drawing an image onto itself reads from a snapshot, so rows written early are not
        // read again as source and row copies never overlap.
        MirelImage snapshot;
        const std::size_t bytes = pixelOffset(source, 0, source.height);
        snapshot.pixels = allocatePixels(source.width, source.height);
        if (!snapshot.pixels) return;
        std::memcpy(snapshot.pixels.get(), source.pixels.get(), bytes);
        snapshot.width = source.width;
        snapshot.height = source.height;
        placeImage(target, snapshot, part, x, y, blend, scale, rotation);
        return;
    }
    if (scale == 1 && turn == 0) placeUnscaled(target, source, part, x, y, blend);
    else placeTransformed(target, source, part, x, y, blend, scale, turn);
}

}  // namespace

void blitImage(MirelImage& target, const MirelImage& source, int x, int y, Blend blend, double scale, double rotation) {
    placeImage(target, source, SourceRect{0, 0, source.width, source.height}, x, y, blend, scale, rotation);
}

void blitImageRect(MirelImage& target, const MirelImage& source, SourceRect part, int x, int y, Blend blend, double scale) {
    placeImage(target, source, part, x, y, blend, scale, 0);
}

}  // namespace quillfen
