// Output planes whose texels hold several pixels of a row: luma 4 to an RGBA8 texel, chroma 2
// CbCr pairs. One fragment then writes them all, so a rasteriser's work per fragment, and the
// block's mesh lookups, are shared by 4 (or 2) pixels.
//
// A block or seam whose columns do not start or end on a texel boundary shares its end texels
// with its neighbour: those are drawn on their own, with only their covered pixels' channels
// writable, so each side writes its own pixels of the texel.
#ifndef ZQGFX_AVS_PACKED_COLUMNS_H
#define ZQGFX_AVS_PACKED_COLUMNS_H

#include <GLES3/gl31.h>

#include "gl/frame_counters.h"

namespace zqgfx_gpu_avs {

// Pixels per texel of the plane paths' output planes.
constexpr int kLumaPixelsPerTexel = 4;
constexpr int kChromaPixelsPerTexel = 2;

// Texels needed for `pixels` pixels of a row.
inline int packedWidth(int pixels, int pack)
{
    return (pixels + pack - 1) / pack;
}

// One draw over texel columns [texelX, texelX + texelWidth).
struct PackedColumnDraw {
    int texelX = 0;
    int texelWidth = 0;
    // The `packedColumns` uniform: the drawn rectangle's own x coordinate (0 to 1 across its
    // pixel columns) at the viewport's left edge, its change across the viewport, and per pixel.
    GLfloat columns[3] = {};
    GLboolean mask[4] = {GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE};
};

// The draws that cover pixel columns [x, x + width) (width > 0) of a plane with `pack` pixels
// per texel: a partly covered texel at either end, and the whole texels between. 1 to 3.
int packedColumnDraws(int pack, int x, int width, PackedColumnDraw out[3]);

// Draws rows [y, y + height) of pixel columns [x, x + width) of `framebuffer` with the bound
// program: per packed draw the viewport, channel mask and `packedColumns` (at `location`) set,
// then `drawOnce()`, counted in `counters`. The channel mask is all writable again afterwards.
template <typename DrawOnce>
void drawPackedColumns(GLuint framebuffer, int pack, int x, int y, int width, int height, GLint location, GLenum mode,
                       int vertices, FrameCounters& counters, DrawOnce drawOnce)
{
    PackedColumnDraw draws[3];
    const int n = width > 0 ? packedColumnDraws(pack, x, width, draws) : 0;
    for (int i = 0; i < n; ++i) {
        const PackedColumnDraw& d = draws[i];
        glViewport(d.texelX, y, d.texelWidth, height);
        glColorMask(d.mask[0], d.mask[1], d.mask[2], d.mask[3]);
        glUniform3fv(location, 1, d.columns);
        drawOnce();
        counters.draw(framebuffer, mode, vertices, static_cast<int64_t>(d.texelWidth) * height);
    }
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
}

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_PACKED_COLUMNS_H
