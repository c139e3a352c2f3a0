// Splitting a rectangle's columns into packed draws (see packed_columns.h).
#include "gl/packed_columns.h"

#include <algorithm>

namespace zqgfx_gpu_avs {

namespace {

// Texels [first, last) of the columns [x, x + width): the mapping of the rectangle's own x
// coordinate onto them, and the channels of the pixels it covers.
PackedColumnDraw columnsDraw(int pack, int x, int width, int first, int last)
{
    PackedColumnDraw d;
    d.texelX = first;
    d.texelWidth = last - first;
    d.columns[0] = static_cast<GLfloat>(pack * first - x) / static_cast<GLfloat>(width);
    d.columns[1] = static_cast<GLfloat>(pack * (last - first)) / static_cast<GLfloat>(width);
    d.columns[2] = 1.0f / static_cast<GLfloat>(width);
    const int channels = 4 / pack;
    for (int k = 0; k < pack; ++k) {
        // Only a one-texel draw can be partly covered.
        const int column = pack * first + k;
        const bool covered = d.texelWidth > 1 || (column >= x && column < x + width);
        for (int c = 0; c < channels; ++c) d.mask[k * channels + c] = covered ? GL_TRUE : GL_FALSE;
    }
    return d;
}

}  // namespace

int packedColumnDraws(int pack, int x, int width, PackedColumnDraw out[3])
{
    const int end = x + width;
    // Whole texels [inner, outer) and the texels the ends share with a neighbour.
    const int first = x >= 0 ? x / pack : -((-x + pack - 1) / pack);
    const int inner = first * pack == x ? first : first + 1;
    const int outer = end >= 0 ? end / pack : -((-end + pack - 1) / pack);
    int n = 0;
    if (inner > outer) {  // both ends in one texel
        out[n++] = columnsDraw(pack, x, width, first, first + 1);
        return n;
    }
    if (inner != first) out[n++] = columnsDraw(pack, x, width, first, inner);
    if (outer > inner) out[n++] = columnsDraw(pack, x, width, inner, outer);
    if (outer * pack != end) out[n++] = columnsDraw(pack, x, width, outer, outer + 1);
    return n;
}

}  // namespace zqgfx_gpu_avs
