// Row processors: functions that rewrite a range of an output image's rows, called on worker
// threads by the operations that split an image by rows. Each touches only its own rows.
#pragma once

#include "graphics/mirel_image.h"

namespace quillfen::mirel_shader {

// A quadrilateral in output pixels onto which a whole input image is mapped, as two triangles:
// (left-top, right-top, left-bottom) carries the input's top-left half and (right-bottom,
// left-bottom, right-top) its bottom-right half.
struct QuadMapping {
    float corners[8] = {};        // left-top, right-top, left-bottom, right-bottom; x then y
    float inverseFirst = 0;       // 1 / the first triangle's determinant; 0 when it is degenerate
    float inverseSecond = 0;      // likewise for the second triangle
    float inputMaxX = 0;          // the input's largest x and y (width - 1, height - 1)
    float inputMaxY = 0;
};

// Maps the input onto the quad for output rows [firstRow, endRow): every output pixel (x, y)
// whose position lies in a triangle takes the nearest input pixel through that triangle's
// affine map, drawn with the blend rule. The corners are pixel positions: the input's corner
// pixels land exactly on the corner pixels, so a quad of the input's own size copies it.
// Rows outside the output are ignored.
void processRows(int firstRow, int endRow, const MirelImage& input, MirelImage& output, const QuadMapping& quad);

}  // namespace quillfen::mirel_shader
