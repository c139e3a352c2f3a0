// The work of one frame as a user on a board would count it: render passes (a draw into another
// framebuffer than the draw before it), draw calls, triangles and fragments. The engines add
// to it at every draw; the profiling hook reports it.
#ifndef ZQGFX_AVS_FRAME_COUNTERS_H
#define ZQGFX_AVS_FRAME_COUNTERS_H

#include <GLES3/gl31.h>

#include <cstdint>

namespace zqgfx_gpu_avs {

struct FrameCounters {
    int64_t passes = 0;
    int64_t draws = 0;
    int64_t triangles = 0;
    int64_t fragments = 0;
    GLuint lastFramebuffer = 0;

    void startFrame() { *this = FrameCounters{}; }
    // One draw of `vertices` vertices in `mode` into `framebuffer`, covering `pixels` fragments.
    void draw(GLuint framebuffer, GLenum mode, int64_t vertices, int64_t pixels)
    {
        if (draws == 0 || framebuffer != lastFramebuffer) ++passes;
        lastFramebuffer = framebuffer;
        ++draws;
        triangles += mode == GL_TRIANGLE_STRIP ? (vertices > 2 ? vertices - 2 : 0) : vertices / 3;
        fragments += pixels;
    }
};

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_FRAME_COUNTERS_H
