// Shared GPU resource records and the dma-buf import helpers.
#ifndef ZQGFX_AVS_COMMON_RESOURCE_H
#define ZQGFX_AVS_COMMON_RESOURCE_H

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl31.h>
#include <GLES2/gl2ext.h>

#include <cstdint>

#include "gl/DebugLog.h"
#include "gl/gpu_caps.h"

namespace zqgfx_gpu_avs {

// One render target or texture. The engine whose array holds an entry creates and destroys it.
struct drmSharedFramebuffer {
    GLuint fbo_id;      // all bits set for a texture without framebuffer
    GLuint texture_id;
    void* vir_addr;     // CPU mapping of the backing buffer, or null
    int32_t mem_fd;     // dma-buf of the backing buffer, -1 for a plain GL texture
    int32_t mem_bpp;
    int32_t width;
    int32_t height;
};

// What the remap engine built for one slot of its descriptor table.
struct textureAndFboStatus {
    GLuint fbo_id;      // 0 for an input image
    GLuint texture_id;
    int width;
    int height;
    // The buffer the descriptor named when it was imported (device and inode; 0 when unknown):
    // a caller may close a descriptor and get its number back for another buffer.
    uint64_t device = 0;
    uint64_t inode = 0;
};

// One cached vertex buffer of a block's mesh, keyed by mesh index (camera * 10 + block).
struct RemapVboInfo {
    int mIndex;
    int meshxStep;
    int meshyStep;
    int meshWidth;
    int meshHeight;
    GLfloat* mVertexes;  // CPU copy, malloc'ed, owned by the entry
    GLuint mVboId;
    RemapVboInfo(int index, int xStep, int yStep, int width, int height, GLfloat* vertexes, GLuint vbo)
        : mIndex(index), meshxStep(xStep), meshyStep(yStep), meshWidth(width), meshHeight(height),
          mVertexes(vertexes), mVboId(vbo)
    {
    }
};


// Where a frame's output is drawn. The target path draws the YUV image once; the other paths
// draw each block twice, luma at full size and chroma at half size, each with a program of its
// own, into RGBA8 targets whose texels hold `pack` pixels of a row (see packed_columns.h).
struct OutputPlane {
    GLuint fbo;
    int divisor;  // 1, or 2 for the half-size chroma plane
    int plane;    // 0 luma, 1 chroma; -1 for the whole YUV image
    int pack = 1;  // pixels of a row per texel
};
struct OutputPlanes {
    int count;
    OutputPlane planes[2];
};
inline OutputPlanes wholeYuvOutput(GLuint fbo)
{
    return OutputPlanes{1, {{fbo, 1, -1}, {0, 1, -1}}};
}
// Output rectangle (x, y, w, h) on `plane`: divided, edges rounded outwards so that neighbouring
// blocks leave no column between them. setPlaneViewport makes it the viewport.
struct PlaneRect {
    int x, y, w, h;
};
PlaneRect onPlane(const OutputPlane& plane, int x, int y, int w, int h);
void setPlaneViewport(const OutputPlane& plane, int x, int y, int w, int h);

// ---- EGL image import --------------------------------------------------------------------

// DRM fourcc codes and the Arm AFBC modifier (16x16 superblocks, sparse) as the driver wants them.
constexpr EGLint kFourccNV12 = 0x3231564E;
constexpr EGLint kFourccYUV420_8BIT = 0x38305559;
constexpr EGLint kFourccBGR888 = 0x34324742;
constexpr EGLint kFourccR8 = 0x20203852;
constexpr EGLint kFourccGR88 = 0x38385247;
constexpr EGLint kFourccABGR8888 = 0x34324241;  // bytes R, G, B, A: an RGBA8 texel
constexpr EGLint kAfbcModifierLo = 0x00000041;
constexpr EGLint kAfbcModifierHi = 0x08000000;

// A bounded EGL attribute list; push() refuses to run past the array.
struct EglAttribList {
    static constexpr int kCapacity = 32;
    EGLint values[kCapacity];
    int count = 0;
    bool push(EGLint name, EGLint value);
    void terminate();  // appends EGL_NONE
    const EGLint* data() const { return values; }
};

// Image attribute lists, one builder per kind. `stride` is the pitch in bytes.
EglAttribList yuvImageAttribs(uint32_t is_afbc, int fd, int width, int height, int stride);
EglAttribList bgr888ImageAttribs(int fd, int width, int height, int pitch);
EglAttribList r8ImageAttribs(int fd, int width, int height, int plane_offset);
// One plane of a buffer as a single-plane image (e.g. DRM_FORMAT_R8 luma, DRM_FORMAT_GR88 chroma).
EglAttribList planeImageAttribs(EGLint fourcc, int fd, int width, int height, int offset, int pitch);

// eglCreateImageKHR(dpy, no context, EGL_LINUX_DMA_BUF_EXT, no buffer, attribs); EGL_NO_IMAGE_KHR
// also when the driver lacks one of the three entry points.
EGLImageKHR createDmaBufImage(EGLDisplay dpy, const EglImageProcs& procs, const EglAttribList& attribs);

// Linear filtering and clamp-to-edge wrapping on the texture bound to `target`.
void setLinearClampParameters(GLenum target);

// Width rounded up to a multiple of 16: the pitch rule of every YUV buffer.
inline int alignTo16(int value)
{
    return (value + 15) & ~15;
}

int create_yuv_fbo_by_fd(EGLDisplay dpy, uint32_t is_afbc, int memfd, int fbo_w, int fbo_h, GLuint* fbo_texture);
int create_rgb_fbo_OES(EGLDisplay dpy, int memfd, int fbo_w, int fbo_h, GLuint* fbo_texture);
int create_rgb_fbo_2D(EGLDisplay dpy, int memfd, int fbo_w, int fbo_h, unsigned int stride_in, GLuint* fbo_texture);
int create_fbo_no_fd(int fbo_w, int fbo_h, GLuint* fbo_texture);

// Compiles one shader. A failed compile prints "Could not compile shader <type>:" and the log, and
// deletes the shader; one without a log is handed back as if it had compiled (the link then
// reports it). `terminateLog` writes a terminator into the log's last byte before printing it.
GLuint compileShaderReportingLog(GLenum shaderType, const char* pSource, bool terminateLog);

// How linkProgramReportingLog treats the program and the two shaders.
struct ProgramLinkPolicy {
    bool terminateLog;                       // as for compileShaderReportingLog
    void (*beforeLink)(GLuint program);      // e.g. binds attribute locations; may be null
    bool detachAfterDelete;                  // detach both shaders after deleting them
};

// Attaches, links and, on failure, prints "Could not link program:" and the log and deletes the
// program (0 back). The shaders are deleted in any case, also when no program was made.
GLuint linkProgramReportingLog(GLuint vertexShader, GLuint pixelShader, const ProgramLinkPolicy& policy);

bool checkGlError(const char* op);
void printGLString(const char* name, GLenum s);

}  // namespace zqgfx_gpu_avs

// GL call trace: a debug line before the call, an error line when glGetError reports one, and a
// debug "succeeded" line after it in any case. The error does not change the control flow.
#define AVS_GL_TRACE_LINES(text, call, eol)                                                     \
    do {                                                                                        \
        AVS_LOGD(">>> %s (%s:%d)" eol, text, __FUNCTION__, __LINE__);                            \
        call;                                                                                   \
        GLenum avsTraceError = glGetError();                                                    \
        if (avsTraceError != GL_NO_ERROR)                                                       \
            AVS_LOGE("ERROR: <<< %s: failed: 0x%04x ( ) (%s:%d)" eol, text, avsTraceError,        \
                     __FUNCTION__, __LINE__);                                                   \
        AVS_LOGD("<<< %s: succeeded (%s:%d)" eol, text, __FUNCTION__, __LINE__);                 \
    } while (0)

#define AVS_GL_TRACE(text, call) AVS_GL_TRACE_LINES(text, call, "\n")

#endif  // ZQGFX_AVS_COMMON_RESOURCE_H
