// Remap engine: the thread's EGL context, the remap programs, fences and tear-down.
#include "remap/gl_nv12_remap.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "blend/gles_multiband_blend.h"
#include "io/plane_io.h"

namespace zqgfx_gpu_avs {

namespace {

constexpr EGLint kPbufferSize = 100;
constexpr EGLint kContextAttribs[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
constexpr EGLint kPbufferAttribs[] = {EGL_WIDTH,          kPbufferSize, EGL_HEIGHT, kPbufferSize,
                                      EGL_LARGEST_PBUFFER, EGL_TRUE,     EGL_NONE,   EGL_NONE};
constexpr EGLTimeKHR kFenceTimeoutNs = 2000000000;

// 32-bit RGBA, ES 2 renderable, with the given surface type.
struct ConfigAttribs {
    EGLint values[15];
};
ConfigAttribs configAttribs(EGLint surfaceType)
{
    return {{EGL_BUFFER_SIZE, 32, EGL_ALPHA_SIZE, 8, EGL_BLUE_SIZE, 8, EGL_GREEN_SIZE, 8, EGL_RED_SIZE, 8,
             EGL_SURFACE_TYPE, surfaceType, EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT, EGL_NONE}};
}

// Every config matching `attribs`; empty when none does.
std::vector<EGLConfig> matchingConfigs(EGLDisplay dpy, const EGLint* attribs)
{
    EGLint count = 0;
    eglChooseConfig(dpy, attribs, nullptr, 0, &count);
    std::vector<EGLConfig> configs;
    if (count <= 0) return configs;
    configs.resize(static_cast<size_t>(count));
    eglChooseConfig(dpy, attribs, configs.data(), count, &count);
    configs.resize(static_cast<size_t>(count > 0 ? count : 0));
    return configs;
}

// The first window-capable config (the display of a window system has one), or null.
EGLConfig chooseWindowConfig(EGLDisplay dpy)
{
    std::vector<EGLConfig> configs = matchingConfigs(dpy, configAttribs(EGL_WINDOW_BIT).values);
    return configs.empty() ? nullptr : configs[0];
}

bool hasChannelSizes8888(EGLDisplay dpy, EGLConfig config)
{
    const EGLint channels[] = {EGL_RED_SIZE, EGL_GREEN_SIZE, EGL_BLUE_SIZE, EGL_ALPHA_SIZE};
    for (EGLint channel : channels) {
        EGLint size = 0;
        if (!eglGetConfigAttrib(dpy, config, channel, &size) || size != 8) return false;
    }
    return true;
}

// Displays without a window system (Mesa's surfaceless platform) offer pbuffer configs only.
// Prefers an exact 8/8/8/8 config over whatever the driver lists first.
EGLConfig choosePbufferConfig(EGLDisplay dpy)
{
    AVS_LOGD("no window-capable config; looking for a pbuffer config");
    std::vector<EGLConfig> configs = matchingConfigs(dpy, configAttribs(EGL_PBUFFER_BIT).values);
    for (EGLConfig config : configs)
        if (hasChannelSizes8888(dpy, config)) return config;
    return configs.empty() ? nullptr : configs[0];
}

// Without a window system the default display cannot be initialised; Mesa's surfaceless
// platform still can. Returns that display initialised, or EGL_NO_DISPLAY.
EGLDisplay initializeSurfacelessDisplay(EGLint* major, EGLint* minor)
{
    if (!hasExtension(eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS), "EGL_MESA_platform_surfaceless")) {
        AVS_LOGD("default display not initialised and no surfaceless platform offered");
        return EGL_NO_DISPLAY;
    }
    AVS_LOGD("default display not initialised; falling back on the surfaceless platform");
    // The native display of the surfaceless platform is EGL_DEFAULT_DISPLAY.
    EGLDisplay display = eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, nullptr, nullptr);
    if (display == EGL_NO_DISPLAY || eglInitialize(display, major, minor) != EGL_TRUE) {
        AVS_LOGD("surfaceless display not initialised either");
        return EGL_NO_DISPLAY;
    }
    return display;
}

// NVIDIA without a window system (Jetson boards, headless servers) offers neither a default
// display that initialises nor Mesa's surfaceless platform, but its GPUs as EGL devices.
// Returns the first device's display that initialises, or EGL_NO_DISPLAY.
EGLDisplay initializeDeviceDisplay(EGLint* major, EGLint* minor)
{
    if (!hasExtension(eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS), "EGL_EXT_platform_device")) {
        AVS_LOGD("no device platform offered either");
        return EGL_NO_DISPLAY;
    }
    auto queryDevices = reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
    constexpr EGLint kMaxDevices = 16;
    EGLDeviceEXT devices[kMaxDevices];
    EGLint count = 0;
    if (queryDevices == nullptr || queryDevices(kMaxDevices, devices, &count) != EGL_TRUE) count = 0;
    for (EGLint i = 0; i < count; ++i) {
        EGLDisplay display = eglGetPlatformDisplay(EGL_PLATFORM_DEVICE_EXT, devices[i], nullptr);
        if (display != EGL_NO_DISPLAY && eglInitialize(display, major, minor) == EGL_TRUE) {
            AVS_LOGD("falling back on EGL device %d of %d", i, count);
            return display;
        }
    }
    AVS_LOGD("device platform offered, but none of its %d devices initialised", count);
    return EGL_NO_DISPLAY;
}

// The ordered choice for a machine without a window system: surfaceless, then devices.
EGLDisplay initializeHeadlessDisplay(EGLint* major, EGLint* minor)
{
    EGLDisplay display = initializeSurfacelessDisplay(major, minor);
    return display != EGL_NO_DISPLAY ? display : initializeDeviceDisplay(major, minor);
}

bool offersHeadlessPlatform()
{
    const char* client = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    return hasExtension(client, "EGL_MESA_platform_surfaceless") || hasExtension(client, "EGL_EXT_platform_device");
}

// Instances on several threads share the process's display, and eglTerminate would end it for
// all of them: the last instance to leave terminates it. An instance belongs to its thread, so a
// thread counts once; one whose init failed keeps its place until its next init or its end.
std::mutex& displayUsersMutex()
{
    static std::mutex mutex;
    return mutex;
}
int displayUsers = 0;  // guarded by displayUsersMutex()

struct ThreadDisplayUse {
    bool counted = false;
    ~ThreadDisplayUse()
    {
        std::lock_guard<std::mutex> lock(displayUsersMutex());
        leave();
    }
    void join()
    {
        if (!counted) ++displayUsers;
        counted = true;
    }
    // True when no instance uses the display any more.
    bool leave()
    {
        if (counted) --displayUsers;
        counted = false;
        return displayUsers == 0;
    }
};
thread_local ThreadDisplayUse t_displayUse;

timeval now()
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    return tv;
}

// Milliseconds with the microseconds part truncated to whole milliseconds first.
float elapsedWholeMs(const timeval& start)
{
    timeval end = now();
    return static_cast<float>((end.tv_sec - start.tv_sec) * 1000 + (end.tv_usec - start.tv_usec) / 1000);
}

}  // namespace

ZQGL_Remap::~ZQGL_Remap() = default;  // GL and EGL objects are released by ZQ_EGL_Deinit alone

int ZQGL_Remap::ZQ_EGL_Init(multibandResource* resource)
{
    timeval start = now();
    checkEglError("<init>", EGL_TRUE);

    // Held until the display is initialised and counted, so that no other thread's
    // tear-down terminates it in between.
    std::unique_lock<std::mutex> displayLock(displayUsersMutex());
    if (dpy == EGL_NO_DISPLAY) {
        dpy = eglGetDisplay(EGL_DEFAULT_DISPLAY);
        checkEglError("eglGetDisplay", EGL_TRUE);
    }
    if (dpy == EGL_NO_DISPLAY) {
        puts("eglGetDisplay returned EGL_NO_DISPLAY.");
        return 1;
    }

    EGLBoolean result = eglInitialize(dpy, &majorVersion, &minorVersion);
    EGLDisplay headless = EGL_NO_DISPLAY;
    if (result != EGL_TRUE && offersHeadlessPlatform()) {
        // A machine without a window system: the default display's failure is expected there
        // and reported only when no headless platform can stand in for it.
        while (eglGetError() != EGL_SUCCESS) {
        }
        headless = initializeHeadlessDisplay(&majorVersion, &minorVersion);
    }
    if (headless != EGL_NO_DISPLAY) {
        dpy = headless;
        result = EGL_TRUE;
    } else {
        checkEglError("eglInitialize", result);
    }
    fprintf(stderr, "EGL version %d.%d\n", majorVersion, minorVersion);
    if (result != EGL_TRUE) {
        puts("eglInitialize failed");
        return 1;
    }
    t_displayUse.join();
    displayLock.unlock();

    // Asks for window support although only a pbuffer is made [kept:K8].
    EGLConfig config = chooseWindowConfig(dpy);
    if (config == nullptr) config = choosePbufferConfig(dpy);

    surface = eglCreatePbufferSurface(dpy, config, kPbufferAttribs);
    checkEglError("eglCreateWindowSurface", EGL_TRUE);
    if (surface == EGL_NO_SURFACE) {
        puts("eglCreateWindowSurface failed.");
        return 1;
    }

    // Drivers hand out the highest compatible version; the request stays at 2.
    context = eglCreateContext(dpy, config, EGL_NO_CONTEXT, kContextAttribs);
    checkEglError("eglCreateContext", EGL_TRUE);
    if (context == EGL_NO_CONTEXT) {
        puts("eglCreateContext failed");
        return 1;
    }

    result = eglMakeCurrent(dpy, surface, surface, context);
    checkEglError("eglMakeCurrent", result);
    if (result != EGL_TRUE) return 1;

    EGLint width = 0;
    EGLint height = 0;
    eglQuerySurface(dpy, surface, EGL_WIDTH, &width);
    checkEglError("eglQuerySurface", EGL_TRUE);
    eglQuerySurface(dpy, surface, EGL_HEIGHT, &height);
    checkEglError("eglQuerySurface", EGL_TRUE);
    AVS_LOGD("Window dimensions: %d x %d\n", width, height);

    printGLString("Version", GL_VERSION);
    // Stored once, in the record both engines share.
    resource->caps = detectGpuCaps(dpy);
    const AvsGpuCaps& caps = resource->caps;

    resource->context = context;
    resource->dpy = dpy;
    resource->surface = surface;

    // On failure the programs already built are kept; de-initialisation deletes them.
    const RemapShaderTexts texts = remapShaderTexts(caps.drawsPlanes());
    gProgram = createProgram(texts.vertex, texts.yuvToYuv);
    if (gProgram == 0) return 1;
    gProgramRGB = createProgram(texts.vertex, texts.yuvToRgb);
    if (gProgramRGB == 0) return 1;
    gProgramRGBtoYUV = createProgram(texts.vertex, texts.rgbToYuv);
    if (gProgramRGBtoYUV == 0) return 1;
    if (texts.yuvToChroma != nullptr) {
        gProgramChroma = createProgram(texts.vertex, texts.yuvToChroma);
        if (gProgramChroma == 0) return 1;
    }
    if (setUpFrameIo(caps) != 0) return 1;

    cache_input_fd = static_cast<GLuint*>(malloc(kImportSlotCount * sizeof(GLuint)));
    if (cache_input_fd == nullptr) {
        AVS_LOGE("no memory for the import table");
        return 1;
    }
    memset(cache_input_fd, 0, kImportSlotCount * sizeof(GLuint));
    create_texture_fbo_status.resize(kImportSlotCount);
    for (textureAndFboStatus& slot : create_texture_fbo_status) slot = textureAndFboStatus{0, 0, 0, 0};

    AVS_LOGD("ZQ_EGL_init use time=%f ms \n", elapsedWholeMs(start));
    return 0;
}

int ZQGL_Remap::ZQ_EGL_Deinit()
{
    AvsTimer timer;

    // The layout may promise more overlap blocks than were made when set-up stopped early;
    // only the framebuffers that exist are deleted.
    const int cameras = _remap_init_params.camera_num;
    for (int cam = 0; cam < cameras; ++cam) {
        int blocks = cam < static_cast<int>(_remap_init_params.overlap_block.size())
                         ? _remap_init_params.overlap_block[cam].overlap_num
                         : 0;
        int made = cam < static_cast<int>(overlapFramebuffer.size()) ? static_cast<int>(overlapFramebuffer[cam].size())
                                                                     : 0;
        if (blocks > made) {
            AVS_LOGE("camera %d has %d overlap framebuffers of %d; deleting those", cam, made, blocks);
            blocks = made;
        }
        for (int bn = 0; bn < blocks; ++bn) {
            if (overlapFramebuffer[cam][bn].fbo_id == 0) continue;  // the plane paths make none
            glDeleteFramebuffers(1, &overlapFramebuffer[cam][bn].fbo_id);
            glDeleteTextures(1, &overlapFramebuffer[cam][bn].texture_id);
        }
    }

    for (int i = 0; i < static_cast<int>(create_texture_fbo_status.size()); ++i) frameIo().releaseSlot(i, false);
    delete planeIo;
    planeIo = nullptr;
    meshQuads.release();
    for (GlProgram& program : gainPrograms) program.reset();

    deleteCachedVbo();
    free(cache_input_fd);

    glDeleteProgram(gProgram);
    glDeleteProgram(gProgramRGB);
    glDeleteProgram(gProgramRGBtoYUV);
    if (gProgramChroma != 0) glDeleteProgram(gProgramChroma);
    gProgramChroma = 0;

    // Destroyed while still current: EGL releases them once they are no longer current.
    eglDestroySurface(dpy, surface);
    eglDestroyContext(dpy, context);
    eglMakeCurrent(dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    {
        std::lock_guard<std::mutex> lock(displayUsersMutex());
        if (t_displayUse.leave())
            eglTerminate(dpy);
        else
            AVS_LOGD("the display stays initialised for the other %d instances", displayUsers);
    }

    AVS_LOGD("ZQ_EGL_Deinit use time=%f ms \n", timer.elapsedMs());
    return 0;
}

// Logs are terminated before printing; a failed compile without a log hands the shader back.
GLuint ZQGL_Remap::loadShader(GLenum shaderType, const char* pSource)
{
    return compileShaderReportingLog(shaderType, pSource, true);
}

GLuint ZQGL_Remap::createProgram(const char* pVertexSource, const char* pFragmentSource)
{
    GLuint vertexShader = loadShader(GL_VERTEX_SHADER, pVertexSource);
    if (vertexShader == 0) return 0;
    GLuint pixelShader = loadShader(GL_FRAGMENT_SHADER, pFragmentSource);
    if (pixelShader == 0) return 0;  // the vertex shader stays
    // Deleted before they are detached, also when no program was made; the established order.
    return linkProgramReportingLog(vertexShader, pixelShader, ProgramLinkPolicy{true, nullptr, true});
}

int ZQGL_Remap::setupGraphicsTest(GLuint program, int w1, int h1, int w2, int h2)
{
    if (w1 < 0 || h1 < 0 || w2 < 0 || h2 < 0) {
        AVS_LOGE("can't set glViewport, arguements illegal: w1=%d h1=%d w2=%d h2=%d\n", w1, h1, w2, h2);
        return 0;
    }
    AVS_LOGD("glViewport w1=%d h1=%d w2=%d h2=%d\n", w1, h1, w2, h2);
    gvPositionHandle = static_cast<GLuint>(glGetAttribLocation(program, "vPosition"));
    checkGlError("glGetAttribLocation");
    gvTextureTexCoordsHandle = static_cast<GLuint>(glGetAttribLocation(program, "texCoords"));
    checkGlError("glGetAttribLocation");
    gvTextureSamplerHandle = static_cast<GLuint>(glGetUniformLocation(program, "outTexture"));
    checkGlError("glGetUniformLocation");
    glViewport(w1, h1, w2, h2);
    checkGlError("glViewport");
    return 1;
}

void ZQGL_Remap::checkEglError(const char* op, EGLBoolean returnVal)
{
    if (returnVal != EGL_TRUE) fprintf(stderr, "%s() returned %d\n", op, returnVal);
    for (EGLint error = eglGetError(); error != EGL_SUCCESS; error = eglGetError())
        fprintf(stderr, "after %s() eglError (0x%x)\n", op, error);
}

int ZQGL_Remap::dumpFboPixels(int inWindowWidth, int inWindowHeight, int inSize, char* formatName,
                              char* pPixelDataFront, int index)
{
    char path[256];
    snprintf(path, sizeof(path), "/usr/data/dump/dumplayer_%d_%dx%d_%s.bin", index, inWindowWidth, inWindowHeight,
             formatName ? formatName : "");
    // Only the caller knows how many bytes it holds; nothing to write from no buffer.
    if (pPixelDataFront == nullptr || inSize < 0) {
        AVS_LOGE("no pixels to dump for %s (size %d)", path, inSize);
        return -1;
    }
    FILE* file = fopen(path, "wb+");
    if (file == nullptr) {
        printf("Could not open /%s \n", path);
        return -1;
    }
    fwrite(pPixelDataFront, static_cast<size_t>(inSize), 1, file);
    fclose(file);
    printf("open %s and write ok\n", path);
    return 0;
}

void* ZQGL_Remap::gles_create_sync()
{
    const EglSyncProcs& procs = eglSyncProcs();
    EGLSyncKHR sync = procs.createSync ? procs.createSync(dpy, EGL_SYNC_FENCE_KHR, nullptr) : EGL_NO_SYNC_KHR;
    // A plain fence, whatever the message says [kept:K12].
    if (sync == EGL_NO_SYNC_KHR) AVS_LOGE("failed to create EGL native fence sync");
    return sync;
}

int ZQGL_Remap::gles_wait_sync(void* sync)
{
    const EglSyncProcs& procs = eglSyncProcs();
    if (procs.clientWaitSync == nullptr || procs.destroySync == nullptr) {
        AVS_LOGE("GLProcess: the driver offers no EGL fences");
        return 1;
    }
    EGLint result = procs.clientWaitSync(dpy, sync, EGL_SYNC_FLUSH_COMMANDS_BIT_KHR, kFenceTimeoutNs);
    EGLint eglErr = eglGetError();
    // A fence that timed out or failed stays alive: the caller has no call to release it [kept:K13].
    if (result == EGL_TIMEOUT_EXPIRED_KHR) {
        AVS_LOGE("GLProcess: fence wait timed out");
        return 1;
    }
    if (eglErr != EGL_SUCCESS) {
        AVS_LOGE("GLProcess: error waiting on EGL fence: %#x", eglErr);
        return 1;
    }
    AVS_LOGD("GLProcess: wait fence succeded\n");
    procs.destroySync(dpy, sync);
    return 0;
}

int ZQGL_Remap::setUpFrameIo(const AvsGpuCaps& caps)
{
    if (!caps.drawsPlanes()) return 0;
    planeIo = new (std::nothrow) PlaneIo(dpy, caps.path == GpuPath::planes);
    if (planeIo == nullptr) {
        AVS_LOGE("no memory for the plane input and output slots");
        return -1;
    }
    if (!meshQuads.create(caps.has_GL_OES_texture_float_linear)) {
        AVS_LOGE("the mesh remap programs cannot be made");
        return -1;
    }
    return 0;
}

FrameIo& ZQGL_Remap::frameIo()
{
    if (planeIo) return *planeIo;
    return yuvImageIo;
}

const FrameIo& ZQGL_Remap::frameIo() const
{
    if (planeIo) return *planeIo;
    return yuvImageIo;
}

void collectFrameColumns(const PSR_INITPARAMS_T& layout, const multibandResource* seams, ColumnSpanList* spans)
{
    spans->clear();
    const int cameras = std::min<int>(layout.camera_num, static_cast<int>(layout.nonoverlap_block.size()));
    for (int cam = 0; cam < cameras; ++cam) {
        const zqPSR_NONOVERLAP_BLOCK& blocks = layout.nonoverlap_block[cam];
        const int count = std::min<int>({blocks.nonoverlap_num, static_cast<int>(blocks.dst_startx.size()),
                                         static_cast<int>(blocks.dst_width.size())});
        for (int bn = 0; bn < count; ++bn) spans->add(blocks.dst_startx[bn], blocks.dst_width[bn]);
    }
    if (seams == nullptr) return;
    // A seam that is not blended keeps the width 0 that planning gave it, and adds nothing.
    const int seamCount = std::min<int>({seams->cameraNum, static_cast<int>(seams->resize_startx.size()),
                                         static_cast<int>(seams->resize_width.size())});
    for (int cam = 0; cam < seamCount; ++cam) spans->add(seams->resize_startx[cam], seams->resize_width[cam]);
}

int ZQGL_Remap::finishOutputFrame()
{
    // Only the upload path reads the spans back: synchronously, so that a fenced frame has its
    // bytes in place before the fence.
    ColumnSpanList spans;
    collectFrameColumns(_remap_init_params, blendResource, &spans);
    return frameIo().finishOutput(outputSlot, spans);
}

OutputPlanes ZQGL_Remap::outputPlanes() const
{
    return frameIo().outputPlanes(outputSlot, framebuffer0);
}

}  // namespace zqgfx_gpu_avs
