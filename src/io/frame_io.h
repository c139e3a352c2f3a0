// How camera images get into the GPU and the panorama out of it: one way per path (gpu_caps.h),
// made once when the instance's context is, and called by the remap engine for every slot of its
// import table.
//
//  YUV images (target path):  YuvImageIo, in remap/gl_nv12_remap_import.cpp
//  plane images / uploads:    PlaneIo, in io/plane_io.h
#ifndef ZQGFX_AVS_FRAME_IO_H
#define ZQGFX_AVS_FRAME_IO_H

#include <cstdint>

#include "gl/common_resource.h"

namespace zqgfx_gpu_avs {

class ColumnSpanList;
struct multibandResource;

// Slots of the remap engine's import table, and so of every frame I/O.
constexpr int kImportSlotCount = 100;

class FrameIo {
public:
    virtual ~FrameIo() = default;

    virtual GpuPath path() const = 0;
    // AFBC buffers are compressed for the GPU alone: only whole YUV images can take them.
    bool takesAfbc() const { return path() == GpuPath::target; }

    // Makes the texture(s) of the NV12 image of `fd` in `slot`. Returns the texture the table
    // records; 0 when refused (the slot is freed so that a later frame can retry the descriptor).
    virtual GLuint importInput(int slot, int fd, uint32_t isAfbc, int width, int height) = 0;
    // Brings a known camera image up to date before a frame; 0, or -1 for a slot without one.
    virtual int refreshInput(int slot) = 0;
    // Binds the camera image of `slot`, whose recorded texture is `texture`, for the remap draws;
    // false on failure. YUV images need the name alone, plane paths the slot alone.
    virtual bool bindInput(int slot, GLuint texture) const = 0;

    // Makes the render target(s) of the NV12 output of `fd`, rows of `stride` bytes. Returns the
    // framebuffer the table records and writes its texture to `*texture`; 0 when refused.
    virtual GLuint importOutput(int slot, int fd, uint32_t isAfbc, int width, int height, int stride,
                                GLuint* texture) = 0;
    // Where a frame on the output in `slot`, whose recorded framebuffer is `fbo`, is drawn; count 0
    // when the slot holds no output.
    virtual OutputPlanes outputPlanes(int slot, GLuint fbo) const = 0;
    // Ends a frame on the output in `slot`: the caller's buffer holds the columns of `spans`
    // afterwards (once the GPU is done). 0, or -1 on failure.
    virtual int finishOutput(int slot, const ColumnSpanList& spans) = 0;

    // Deletes what `slot` holds. `textureFirst`: a rebuilt slot's output goes texture first.
    virtual void releaseSlot(int slot, bool textureFirst) = 0;
};

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_FRAME_IO_H
