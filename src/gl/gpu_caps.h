// What the driver can do, and the one decision taken from it: how frames get into and out of the
// GPU. Read once when an instance's context is made; both engines read the stored result.
#ifndef ZQGFX_AVS_GPU_CAPS_H
#define ZQGFX_AVS_GPU_CAPS_H

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl31.h>
#include <GLES2/gl2ext.h>

namespace zqgfx_gpu_avs {

// The three ways in order of preference; the last one works on any GLES 3.1 driver.
//  target:   NV12 dma-bufs as YUV images, sampled and rendered whole (GL_EXT_YUV_target)
//  planes:   each NV12 buffer as an R8 luma and a GR88 chroma image, the output's as packed
//            RGBA8 images (dma-buf import, zero-copy)
//  portable: CPU mappings, uploads into R8/RG8 textures and read-back of packed RGBA8 targets
enum class GpuPath { target, planes, portable };
const char* gpuPathName(GpuPath path);

// `has_X` is true when the driver offers extension X (the bare names are macros of the EGL and
// GL headers). `imports_plane_images` comes from a probe, not from a string: a one-plane image of
// a memfd that samples and renders.
struct AvsGpuCaps {
    bool has_EGL_EXT_image_dma_buf_import;
    bool has_EGL_EXT_image_dma_buf_import_modifiers;
    bool has_EGL_KHR_fence_sync;
    bool has_EGL_MESA_platform_surfaceless;
    bool has_GL_OES_EGL_image_external;
    bool has_GL_EXT_YUV_target;
    bool has_GL_EXT_disjoint_timer_query;
    bool has_GL_OES_texture_float_linear;
    bool imports_plane_images;
    // The driver's own words and limits, read once with the extensions (0: not reported).
    char renderer[96];
    char version[96];
    GLint maxTextureSize;       // GL_MAX_TEXTURE_SIZE
    GLint maxRenderbufferSize;  // GL_MAX_RENDERBUFFER_SIZE
    GLint maxTextureUnits;      // GL_MAX_TEXTURE_IMAGE_UNITS
    GpuPath path;
    const char* reason;  // why `path` was chosen, a static text
    // Why each path ahead of `path` was passed over, indexed by GpuPath; null where it was not.
    const char* declined[3];

    // Every path but the target one draws the NV12 planes separately.
    bool drawsPlanes() const { return path != GpuPath::target; }
};

// The image and fence entry points, which libEGL does not export: looked up by name once per
// process (glvnd hands out the same dispatch entries to every display). Null where the driver
// lacks one.
struct EglImageProcs {
    PFNEGLCREATEIMAGEKHRPROC createImage;
    PFNEGLDESTROYIMAGEKHRPROC destroyImage;
    PFNGLEGLIMAGETARGETTEXTURE2DOESPROC imageTargetTexture2D;
};
struct EglSyncProcs {
    PFNEGLCREATESYNCKHRPROC createSync;
    PFNEGLCLIENTWAITSYNCKHRPROC clientWaitSync;
    PFNEGLDESTROYSYNCKHRPROC destroySync;
};
const EglImageProcs& eglImageProcs();
const EglSyncProcs& eglSyncProcs();

// True when `name` is one of the blank-separated words of `extensions` (null-safe).
bool hasExtension(const char* extensions, const char* name);

// Reads the client, display and current context extensions, probes plane imports where the
// display offers dma-buf import, and chooses the path; needs a current context.
AvsGpuCaps detectGpuCaps(EGLDisplay dpy);

// The first path of the ordered list that the capabilities allow, with the reason, and the
// reasons of the paths passed over.
void choosePath(AvsGpuCaps* caps);

// False, with an error line naming the limit, when a `width` x `height` texture called `what`
// exceeds the driver's texture limit or, for a render target, its renderbuffer limit. Limits the
// driver did not report are not checked.
bool fitsDriverLimits(const AvsGpuCaps& caps, const char* what, int width, int height, bool renderTarget);

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_GPU_CAPS_H
