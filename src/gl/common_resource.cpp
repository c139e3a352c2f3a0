// dma-buf import into textures and framebuffers, EGL image attribute lists, GL diagnostics.
//
// The helpers take the caller's descriptors as they are: nothing here closes or duplicates a
// dma-buf. The framebuffers and textures they return belong to the caller.
#include "gl/common_resource.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "gl/import_core.h"

namespace zqgfx_gpu_avs {

// ---- attribute lists -----------------------------------------------------------------------

bool EglAttribList::push(EGLint name, EGLint value)
{
    // Keep one entry free for the terminator.
    if (count + 3 > kCapacity) {
        AVS_LOGE("EGL attribute list full, 0x%x dropped", name);
        return false;
    }
    values[count++] = name;
    values[count++] = value;
    return true;
}

void EglAttribList::terminate()
{
    if (count < kCapacity) values[count++] = EGL_NONE;
}

EglAttribList yuvImageAttribs(uint32_t is_afbc, int fd, int width, int height, int stride)
{
    EglAttribList list;
    list.push(EGL_WIDTH, width);
    list.push(EGL_HEIGHT, height);
    if (is_afbc) {
        // One plane of 16x16 sparse superblocks.
        list.push(EGL_LINUX_DRM_FOURCC_EXT, kFourccYUV420_8BIT);
        list.push(EGL_DMA_BUF_PLANE0_FD_EXT, fd);
        list.push(EGL_DMA_BUF_PLANE0_OFFSET_EXT, 0);
        list.push(EGL_DMA_BUF_PLANE0_PITCH_EXT, stride);
        list.push(EGL_DMA_BUF_PLANE0_MODIFIER_LO_EXT, kAfbcModifierLo);
        list.push(EGL_DMA_BUF_PLANE0_MODIFIER_HI_EXT, kAfbcModifierHi);
    } else {
        // NV12: the chroma plane follows the luma plane directly, no padding rows.
        list.push(EGL_LINUX_DRM_FOURCC_EXT, kFourccNV12);
        list.push(EGL_DMA_BUF_PLANE0_FD_EXT, fd);
        list.push(EGL_DMA_BUF_PLANE0_OFFSET_EXT, 0);
        list.push(EGL_DMA_BUF_PLANE0_PITCH_EXT, stride);
        list.push(EGL_DMA_BUF_PLANE1_FD_EXT, fd);
        list.push(EGL_DMA_BUF_PLANE1_OFFSET_EXT, stride * height);
        list.push(EGL_DMA_BUF_PLANE1_PITCH_EXT, stride);
    }
    list.terminate();
    return list;
}

EglAttribList planeImageAttribs(EGLint fourcc, int fd, int width, int height, int offset, int pitch)
{
    EglAttribList list;
    list.push(EGL_WIDTH, width);
    list.push(EGL_HEIGHT, height);
    list.push(EGL_LINUX_DRM_FOURCC_EXT, fourcc);
    list.push(EGL_DMA_BUF_PLANE0_FD_EXT, fd);
    list.push(EGL_DMA_BUF_PLANE0_OFFSET_EXT, offset);
    list.push(EGL_DMA_BUF_PLANE0_PITCH_EXT, pitch);
    list.terminate();
    return list;
}

EglAttribList bgr888ImageAttribs(int fd, int width, int height, int pitch)
{
    return planeImageAttribs(kFourccBGR888, fd, width, height, 0, pitch);
}

EglAttribList r8ImageAttribs(int fd, int width, int height, int plane_offset)
{
    return planeImageAttribs(kFourccR8, fd, width, height, plane_offset, width);  // one byte per pixel
}

// ---- output planes ------------------------------------------------------------------------

PlaneRect onPlane(const OutputPlane& plane, int x, int y, int w, int h)
{
    const int d = plane.divisor;
    const int x0 = x / d, y0 = y / d;
    return {x0, y0, (x + w + d - 1) / d - x0, (y + h + d - 1) / d - y0};
}

void setPlaneViewport(const OutputPlane& plane, int x, int y, int w, int h)
{
    const PlaneRect r = onPlane(plane, x, y, w, h);
    glViewport(r.x, r.y, r.w, r.h);
}

// ---- EGL images --------------------------------------------------------------------------

EGLImageKHR createDmaBufImage(EGLDisplay dpy, const EglImageProcs& procs, const EglAttribList& attribs)
{
    // Without all three entry points the image could be neither bound nor released.
    if (!procs.createImage || !procs.destroyImage || !procs.imageTargetTexture2D) return EGL_NO_IMAGE_KHR;
    return procs.createImage(dpy, EGL_NO_CONTEXT, EGL_LINUX_DMA_BUF_EXT, nullptr, attribs.data());
}

void setLinearClampParameters(GLenum target)
{
    glTexParameteri(target, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(target, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(target, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(target, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
}

// The debug line form in the name of `function`, so that the lines of the shared import below
// name the helper the caller called.
#define AVS_LOGD_IN(function, fmt, ...)                                                  \
    do {                                                                                 \
        if (zqgfx_gpu_avs::AvsLogLevel() > 2) {                                          \
            printf("libzqgfx_avs: %s(%d): " fmt, function, __LINE__, ##__VA_ARGS__);     \
            printf("\n");                                                                \
        }                                                                                \
    } while (0)

namespace {

// How one helper imports a dma-buf image as a framebuffer's colour texture. The helpers differ
// in target, in which calls they trace and in the texts of their lines.
struct FboImport {
    const char* function;        // named by every line
    GLenum target;               // GL_TEXTURE_EXTERNAL_OES: bind and parameters traced too
    bool noImageIsError;         // the "eglCreateImageKHR NULL" line: error form, else debug
    bool traceGenTextures;
    const char* attachText;      // trace text of glFramebufferTexture2D
    const char* incompleteText;  // error line of an incomplete framebuffer
    bool unbindTexture;          // unbind the external texture on success
};

int importFbo(EGLDisplay dpy, const EglAttribList& attribs, GLuint* fbo_texture, const FboImport& how)
{
    const char* fn = how.function;
    const bool external = how.target == GL_TEXTURE_EXTERNAL_OES;
    DmaBufImportSteps steps;
    steps.function = fn;
    steps.target = how.target;
    steps.parametersFirst = true;
    steps.traceGenTexture = how.traceGenTextures;
    steps.traceParameters = external;
    steps.bindText = external ? "image_target_texture_2d(GL_TEXTURE_EXTERNAL_OES, img)"
                              : "image_target_texture_2d(GL_TEXTURE_2D, img)";
    steps.framebuffer = true;
    steps.attachText = how.attachText;
    steps.keepOnFailure = true;
    steps.unbindTexture = how.unbindTexture;
    DmaBufImport made = importDmaBuf(dpy, attribs, steps);
    if (made.failure == ImportFailure::image) {
        if (how.noImageIsError)
            AVS_LOGE_IN(fn, "avs-debug eglCreateImageKHR NULL \n ");
        else
            AVS_LOGD_IN(fn, "avs-debug eglCreateImageKHR NULL \n ");
        return -1;
    }
    // The names go to the caller; an incomplete framebuffer leaves the image, the texture and the
    // framebuffer alive [kept:K17].
    *fbo_texture = made.texture.release();
    const GLuint framebuffer = made.framebuffer.release();
    if (!made.ok()) {
        AVS_LOGE_IN(fn, "%s", how.incompleteText);
        return -1;
    }
    AVS_LOGD_IN(fn, "zq_debug create fbo success!\n");
    return static_cast<int>(framebuffer);
}

const char* const kAttachExternal =
    "glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_EXTERNAL_OES, texture, 0)";

}  // namespace

int create_yuv_fbo_by_fd(EGLDisplay dpy, uint32_t is_afbc, int memfd, int fbo_w, int fbo_h, GLuint* fbo_texture)
{
    if (is_afbc) AVS_LOGD("avs-debug afbc is_afbc=%d\n ", is_afbc);
    const FboImport how{__FUNCTION__, GL_TEXTURE_EXTERNAL_OES, false, false,
                        "glFramebufferTexture2D(GL_FRAMEBUFFER,GL_COLOR_ATTACHMENT0, GL_TEXTURE_EXTERNAL_OES, texture, 0)",
                        "zq_debug create fbo failed!\n", false};
    return importFbo(dpy, yuvImageAttribs(is_afbc, memfd, fbo_w, fbo_h, alignTo16(fbo_w)), fbo_texture, how);
}

int create_rgb_fbo_OES(EGLDisplay dpy, int memfd, int fbo_w, int fbo_h, GLuint* fbo_texture)
{
    const FboImport how{__FUNCTION__, GL_TEXTURE_EXTERNAL_OES, true, true, kAttachExternal,
                        "zq_debug create fbo fail!\n", true};
    return importFbo(dpy, bgr888ImageAttribs(memfd, fbo_w, fbo_h, alignTo16(fbo_w) * 3), fbo_texture, how);
}

int create_rgb_fbo_2D(EGLDisplay dpy, int memfd, int fbo_w, int fbo_h, unsigned int stride_in, GLuint* fbo_texture)
{
    const FboImport how{__FUNCTION__, GL_TEXTURE_2D, true, true,
                        "glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0)",
                        "zq_debug create fbo failed!\n", false};
    int pitch = alignTo16(static_cast<int>(stride_in)) * 3;
    return importFbo(dpy, bgr888ImageAttribs(memfd, fbo_w, fbo_h, pitch), fbo_texture, how);
}

int create_fbo_no_fd(int fbo_w, int fbo_h, GLuint* fbo_texture)
{
    GLuint framebuffer = 0;
    if (!makeRgbTarget(fbo_w, fbo_h, fbo_texture, &framebuffer)) {
        AVS_LOGE("zq_debug create fbo failed!\n");
        return -1;
    }
    AVS_LOGD("zq_debug create fbo success!\n");
    return static_cast<int>(framebuffer);  // left bound: callers draw into it next
}

// ---- programs --------------------------------------------------------------------------------

GLuint compileShaderReportingLog(GLenum shaderType, const char* pSource, bool terminateLog)
{
    GLuint shader = glCreateShader(shaderType);
    if (shader == 0) return 0;
    glShaderSource(shader, 1, &pSource, nullptr);
    glCompileShader(shader);
    GLint compiled = 0;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &compiled);
    if (compiled) return shader;

    GLint infoLen = 0;
    glGetShaderiv(shader, GL_INFO_LOG_LENGTH, &infoLen);
    if (infoLen <= 0) return shader;
    char* buf = static_cast<char*>(malloc(static_cast<size_t>(infoLen)));
    if (buf != nullptr) {
        glGetShaderInfoLog(shader, infoLen, nullptr, buf);
        if (terminateLog) buf[infoLen - 1] = '\0';
        fprintf(stderr, "Could not compile shader %d:\n%s\n", shaderType, buf);
        free(buf);
    }
    glDeleteShader(shader);
    return 0;
}

GLuint linkProgramReportingLog(GLuint vertexShader, GLuint pixelShader, const ProgramLinkPolicy& policy)
{
    GLuint program = glCreateProgram();
    if (program != 0) {
        glAttachShader(program, vertexShader);
        checkGlError("glAttachShader");
        glAttachShader(program, pixelShader);
        checkGlError("glAttachShader");
        if (policy.beforeLink != nullptr) policy.beforeLink(program);
        glLinkProgram(program);
        GLint linkStatus = GL_FALSE;
        glGetProgramiv(program, GL_LINK_STATUS, &linkStatus);
        if (linkStatus != GL_TRUE) {
            GLint bufLength = 0;
            glGetProgramiv(program, GL_INFO_LOG_LENGTH, &bufLength);
            char* buf = bufLength > 0 ? static_cast<char*>(malloc(static_cast<size_t>(bufLength))) : nullptr;
            if (buf != nullptr) {
                glGetProgramInfoLog(program, bufLength, nullptr, buf);
                if (policy.terminateLog) buf[bufLength - 1] = '\0';
                fprintf(stderr, "Could not link program:\n%s\n", buf);
                free(buf);
            }
            glDeleteProgram(program);
            program = 0;
        }
    }
    glDeleteShader(vertexShader);
    glDeleteShader(pixelShader);
    if (policy.detachAfterDelete) {
        glDetachShader(program, vertexShader);
        glDetachShader(program, pixelShader);
    }
    return program;
}

// ---- diagnostics and capabilities ---------------------------------------------------------

bool checkGlError(const char* op)
{
    GLenum error = glGetError();
    if (error == GL_NO_ERROR) return true;
    fprintf(stderr, "after %s() glError (0x%x)\n", op, error);
    return false;
}

void printGLString(const char* name, GLenum s)
{
    const GLubyte* value = glGetString(s);
    fprintf(stderr, "GL %s = %s\n", name, value ? reinterpret_cast<const char*>(value) : "(null)");
}

}  // namespace zqgfx_gpu_avs
