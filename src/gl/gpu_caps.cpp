// Driver capabilities and the choice of path.
#include "gl/gpu_caps.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "gl/common_resource.h"
#include "gl/import_core.h"

namespace zqgfx_gpu_avs {

namespace {

// A luma plane as small as a block of the probe: an R8 image of a memfd with a pitch wider than
// its row, bound as a texture and as a render target. Drivers that list dma-buf import may still
// refuse memory that is not a dma-buf, or formats other than their scan-out ones.
bool probePlaneImport(EGLDisplay dpy)
{
    constexpr int kWidth = 8, kHeight = 4, kPitch = 16;
    int fd = memfd_create("zqavs-probe", MFD_CLOEXEC);
    if (fd < 0) return false;
    bool ok = ftruncate(fd, kPitch * kHeight) == 0;
    if (ok) {
        DmaBufImportSteps steps;
        steps.function = __FUNCTION__;
        steps.framebuffer = true;
        steps.checkErrors = true;  // a driver may take the image and still refuse to sample or render it
        steps.unbindTexture = true;
        // Made to be looked at only: released again as the import goes out of scope.
        ok = importDmaBuf(dpy, planeImageAttribs(kFourccR8, fd, kWidth, kHeight, 0, kPitch), steps).ok();
    }
    eglGetError();  // a refused import is an answer, not a fault to leave pending
    close(fd);
    return ok;
}

}  // namespace

const char* gpuPathName(GpuPath path)
{
    switch (path) {
    case GpuPath::target: return "target";
    case GpuPath::planes: return "planes";
    case GpuPath::portable: return "portable";
    }
    return "?";
}

bool hasExtension(const char* extensions, const char* name)
{
    if (extensions == nullptr || name == nullptr) return false;
    size_t length = strlen(name);
    if (length == 0) return false;
    for (const char* p = extensions; (p = strstr(p, name)) != nullptr; p += length) {
        bool startsWord = p == extensions || p[-1] == ' ';
        bool endsWord = p[length] == '\0' || p[length] == ' ';
        if (startsWord && endsWord) return true;
    }
    return false;
}

namespace {

// Each way in and out of the GPU says why it cannot serve these capabilities (null: it can).
const char* targetDeclines(const AvsGpuCaps& caps)
{
    if (!caps.has_EGL_EXT_image_dma_buf_import) return "no dma-buf import";
    if (!caps.has_GL_EXT_YUV_target) return "no YUV render targets";
    return nullptr;
}

const char* planesDecline(const AvsGpuCaps& caps)
{
    if (!caps.has_EGL_EXT_image_dma_buf_import) return "no dma-buf import";
    if (!caps.imports_plane_images) return "the driver refused an R8 image of a memfd";
    return nullptr;
}

const char* portableNeverDeclines(const AvsGpuCaps&)
{
    return nullptr;
}

struct PathCandidate {
    GpuPath path;
    const char* (*declines)(const AvsGpuCaps&);
    const char* chosenBecause;
};

// In order of preference; the last one works on any GLES 3.1 driver.
constexpr PathCandidate kPathCandidates[] = {
    {GpuPath::target, targetDeclines, "dma-buf import and YUV render targets"},
    {GpuPath::planes, planesDecline, "dma-buf import of R8/GR88 planes, no YUV render targets"},
    {GpuPath::portable, portableNeverDeclines, "CPU mappings, uploads and read-back"},
};

}  // namespace

const EglImageProcs& eglImageProcs()
{
    static const EglImageProcs procs{
        reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR")),
        reinterpret_cast<PFNEGLDESTROYIMAGEKHRPROC>(eglGetProcAddress("eglDestroyImageKHR")),
        reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(eglGetProcAddress("glEGLImageTargetTexture2DOES")),
    };
    return procs;
}

const EglSyncProcs& eglSyncProcs()
{
    static const EglSyncProcs procs{
        reinterpret_cast<PFNEGLCREATESYNCKHRPROC>(eglGetProcAddress("eglCreateSyncKHR")),
        reinterpret_cast<PFNEGLCLIENTWAITSYNCKHRPROC>(eglGetProcAddress("eglClientWaitSyncKHR")),
        reinterpret_cast<PFNEGLDESTROYSYNCKHRPROC>(eglGetProcAddress("eglDestroySyncKHR")),
    };
    return procs;
}

void choosePath(AvsGpuCaps* caps)
{
    for (const PathCandidate& candidate : kPathCandidates) {
        if (const char* why = candidate.declines(*caps)) {
            // Logged by the entry point: this unit's copy of the log level is never set.
            caps->declined[static_cast<int>(candidate.path)] = why;
            continue;
        }
        caps->path = candidate.path;
        caps->reason = candidate.chosenBecause;
        return;
    }
}

namespace {

void copyGlString(GLenum name, char* out, size_t size)
{
    const GLubyte* value = glGetString(name);
    snprintf(out, size, "%s", value ? reinterpret_cast<const char*>(value) : "?");
}

GLint glInteger(GLenum name)
{
    GLint value = 0;
    glGetIntegerv(name, &value);
    return value;
}

void readDriverLimits(AvsGpuCaps* caps)
{
    copyGlString(GL_RENDERER, caps->renderer, sizeof caps->renderer);
    copyGlString(GL_VERSION, caps->version, sizeof caps->version);
    caps->maxTextureSize = glInteger(GL_MAX_TEXTURE_SIZE);
    caps->maxRenderbufferSize = glInteger(GL_MAX_RENDERBUFFER_SIZE);
    caps->maxTextureUnits = glInteger(GL_MAX_TEXTURE_IMAGE_UNITS);
}

}  // namespace

AvsGpuCaps detectGpuCaps(EGLDisplay dpy)
{
    const char* egl = eglQueryString(dpy, EGL_EXTENSIONS);
    const char* client = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    if (client == nullptr) eglGetError();  // EGL 1.4 has no client extensions: its EGL_BAD_DISPLAY is no fault
    const char* gl = reinterpret_cast<const char*>(glGetString(GL_EXTENSIONS));

    AvsGpuCaps caps{};
    caps.has_EGL_EXT_image_dma_buf_import = hasExtension(egl, "EGL_EXT_image_dma_buf_import");
    caps.has_EGL_EXT_image_dma_buf_import_modifiers = hasExtension(egl, "EGL_EXT_image_dma_buf_import_modifiers");
    caps.has_EGL_KHR_fence_sync = hasExtension(egl, "EGL_KHR_fence_sync");
    caps.has_EGL_MESA_platform_surfaceless = hasExtension(client, "EGL_MESA_platform_surfaceless");
    caps.has_GL_OES_EGL_image_external = hasExtension(gl, "GL_OES_EGL_image_external");
    caps.has_GL_EXT_YUV_target = hasExtension(gl, "GL_EXT_YUV_target");
    caps.has_GL_EXT_disjoint_timer_query = hasExtension(gl, "GL_EXT_disjoint_timer_query");
    caps.has_GL_OES_texture_float_linear = hasExtension(gl, "GL_OES_texture_float_linear");
    // Only where the target path is out of reach: its drivers need no probe.
    if (caps.has_EGL_EXT_image_dma_buf_import && !caps.has_GL_EXT_YUV_target)
        caps.imports_plane_images = probePlaneImport(dpy);
    readDriverLimits(&caps);
    choosePath(&caps);
    return caps;
}

bool fitsDriverLimits(const AvsGpuCaps& caps, const char* what, int width, int height, bool renderTarget)
{
    struct Limit {
        GLint value;
        const char* words;
        const char* name;
    };
    const Limit limits[] = {
        {caps.maxTextureSize, "texture", "GL_MAX_TEXTURE_SIZE"},
        {renderTarget ? caps.maxRenderbufferSize : 0, "render target", "GL_MAX_RENDERBUFFER_SIZE"},
    };
    for (const Limit& limit : limits) {
        if (limit.value <= 0 || (width <= limit.value && height <= limit.value)) continue;
        AVS_LOGE("%s %dx%d exceeds the driver's %s limit %d (%s)", what, width, height, limit.words, limit.value,
                 limit.name);
        return false;
    }
    return true;
}

}  // namespace zqgfx_gpu_avs
