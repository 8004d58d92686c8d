// The quad-mapping row processor and skewImage, which splits an output image's rows among
// workers running it.
#include "graphics/shader_processors.h"

#include "graphics/mirel_internal.h"

#include <algorithm>
#include <cmath>

namespace quillfen {

namespace {

// Below this magnitude a triangle's determinant counts as zero: the triangle has no area.
constexpr double kDegenerateDeterminant = 1e-5;
// Points exactly on the shared diagonal may miss both triangles by rounding noise;
// this slack closes the seam (the first triangle wins where both accept).
constexpr double kEdgeSlack = 1e-6;

struct Point {
    double x = 0, y = 0;
};

double determinant(Point origin, Point first, Point second) {
    return (first.x - origin.x) * (second.y - origin.y) - (first.y - origin.y) * (second.x - origin.x);
}

// Barycentric coordinates of p in the triangle (origin, origin + e1, origin + e2): p = origin +
// u e1 + v e2. True when p lies inside (with slack).
bool triangleCoordinates(Point p, Point origin, Point first, Point second, double inverse, double& u, double& v) {
    const double dx = p.x - origin.x, dy = p.y - origin.y;
    const double e1x = first.x - origin.x, e1y = first.y - origin.y;
    const double e2x = second.x - origin.x, e2y = second.y - origin.y;
    u = (dx * e2y - dy * e2x) * inverse;
    v = (e1x * dy - e1y * dx) * inverse;
    return u >= -kEdgeSlack && v >= -kEdgeSlack && u + v <= 1 + kEdgeSlack;
}

}  // namespace

namespace mirel_shader {

void processRows(int firstRow, int endRow, const MirelImage& input, MirelImage& output, const QuadMapping& quad) {
    if (!input.pixels || !output.pixels || input.width <= 0 || input.height <= 0) return;
    const Point leftTop{quad.corners[0], quad.corners[1]}, rightTop{quad.corners[2], quad.corners[3]};
    const Point leftBottom{quad.corners[4], quad.corners[5]}, rightBottom{quad.corners[6], quad.corners[7]};

    // Only the columns and rows of the quad's bounding box can be drawn.
    const double minX = std::min({leftTop.x, rightTop.x, leftBottom.x, rightBottom.x});
    const double maxX = std::max({leftTop.x, rightTop.x, leftBottom.x, rightBottom.x});
    const double minY = std::min({leftTop.y, rightTop.y, leftBottom.y, rightBottom.y});
    const double maxY = std::max({leftTop.y, rightTop.y, leftBottom.y, rightBottom.y});
    const int firstColumn = static_cast<int>(std::max(0.0, std::floor(minX)));
    const int endColumn = static_cast<int>(std::min<double>(output.width, std::ceil(maxX) + 1));
    firstRow = std::max({firstRow, 0, static_cast<int>(std::max(0.0, std::floor(minY)))});
    endRow = std::min({endRow, output.height, static_cast<int>(std::min<double>(output.height, std::ceil(maxY) + 1))});

    for (int y = firstRow; y < endRow; ++y) {
        std::uint8_t* to = output.pixels.get() + pixelOffset(output, 0, y);
        for (int x = firstColumn; x < endColumn; ++x) {
            const Point position{static_cast<double>(x), static_cast<double>(y)};
            double u = 0, v = 0, inputX = 0, inputY = 0;
            if (quad.inverseFirst != 0 && triangleCoordinates(position, leftTop, rightTop, leftBottom, quad.inverseFirst, u, v)) {
                inputX = u * quad.inputMaxX;
                inputY = v * quad.inputMaxY;
            } else if (quad.inverseSecond != 0 &&
                       triangleCoordinates(position, rightBottom, leftBottom, rightTop, quad.inverseSecond, u, v)) {
                inputX = (1 - u) * quad.inputMaxX;
                inputY = (1 - v) * quad.inputMaxY;
            } else {
                continue;
            }
            // Inside a triangle the input position is at least a hair above -0.5, so adding a half
            // and truncating rounds to the nearest pixel without a library call.
            const int sourceX = std::clamp(static_cast<int>(inputX + 0.5), 0, input.width - 1);
            const int sourceY = std::clamp(static_cast<int>(inputY + 0.5), 0, input.height - 1);
            mirel_detail::blendPixel(to + static_cast<std::size_t>(x) * 4, input.pixels.get() + pixelOffset(input, sourceX, sourceY));
        }
    }
}

}  // namespace mirel_shader

void skewImage(int leftTopX, int leftTopY, int rightTopX, int rightTopY, int leftBottomX, int leftBottomY,
               int rightBottomX, int rightBottomY, const MirelImage* input, MirelImage* output) {
    if (!input || !output || !input->pixels || !output->pixels) return;
    if (input->width <= 0 || input->height <= 0 || output->width <= 0 || output->height <= 0) return;
    if (input == output) return;  // workers would read rows that others are writing

    mirel_shader::QuadMapping quad;
    const int corners[8] = {leftTopX, leftTopY, rightTopX, rightTopY, leftBottomX, leftBottomY, rightBottomX, rightBottomY};
    for (int index = 0; index < 8; ++index) quad.corners[index] = static_cast<float>(corners[index]);
    const Point leftTop{quad.corners[0], quad.corners[1]}, rightTop{quad.corners[2], quad.corners[3]};
    const Point leftBottom{quad.corners[4], quad.corners[5]}, rightBottom{quad.corners[6], quad.corners[7]};
    const double first = determinant(leftTop, rightTop, leftBottom);
    const double second = determinant(rightBottom, leftBottom, rightTop);
    if (std::abs(first) < kDegenerateDeterminant && std::abs(second) < kDegenerateDeterminant) return;
    quad.inverseFirst = std::abs(first) < kDegenerateDeterminant ? 0.0f : static_cast<float>(1.0 / first);
    quad.inverseSecond = std::abs(second) < kDegenerateDeterminant ? 0.0f : static_cast<float>(1.0 / second);
    quad.inputMaxX = static_cast<float>(input->width - 1);
    quad.inputMaxY = static_cast<float>(input->height - 1);

    const int threads = mirel_detail::threadsForRows(output->height);
    mirel_detail::forEachRowRange(output->height, threads, mirel_detail::RowSplit::Chunked, [&](int firstRow, int endRow) {
        mirel_shader::processRows(firstRow, endRow, *input, *output, quad);
    });
}

}  // namespace quillfen
