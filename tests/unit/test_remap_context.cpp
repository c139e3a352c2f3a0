// Remap engine context, programs, tear-down and fences, against the fake driver.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "remap_engine_support.h"

using namespace zqgfx_gpu_avs;
using namespace remap_test;

namespace {

std::vector<EGLint> configList(EGLint surfaceType)
{
    return {EGL_BUFFER_SIZE, 32, EGL_ALPHA_SIZE, 8, EGL_BLUE_SIZE, 8, EGL_GREEN_SIZE, 8, EGL_RED_SIZE, 8,
            EGL_SURFACE_TYPE, surfaceType, EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT, EGL_NONE};
}

class RemapContext : public testing::Test {
protected:
    void SetUp() override { fakegl::reset(); }

    // A fresh engine's ZQ_EGL_Init; keeps what it wrote to standard output and error.
    int init()
    {
        engine = makeEngine();
        int result = -1;
        testing::internal::CaptureStderr();
        out = stdoutOf([&] { result = engine->ZQ_EGL_Init(&resource); });
        err = testing::internal::GetCapturedStderr();
        return result;
    }

    EnginePtr engine;
    multibandResource resource{};
    std::string out, err;
};

TEST_F(RemapContext, InitOnATargetDriver)
{
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(err.find("EGL version 1.4\n"), 0u);
    EXPECT_NE(err.find("GL Version = OpenGL ES 3.1 fakegl\n"), std::string::npos);
    // The count, then the configs; no fallback on a driver that needs none.
    EXPECT_EQ(callSequence("^egl(GetDisplay|GetPlatformDisplay|Initialize|ChooseConfig|GetConfigAttrib|"
                           "CreatePbufferSurface|CreateContext|MakeCurrent)$|^glCreateProgram$"),
              "eglGetDisplay eglInitialize eglChooseConfig*2 eglCreatePbufferSurface eglCreateContext "
              "eglMakeCurrent glCreateProgram*3");
    std::vector<fakegl::Call> choose = fakegl::callsTo("eglChooseConfig");
    EXPECT_EQ(choose[0].attribs, configList(EGL_WINDOW_BIT));
    EXPECT_EQ(choose[1].args[3], 1);

    EXPECT_TRUE(resource.dpy == engine->dpy && resource.context == engine->context &&
                resource.surface == engine->surface);
    EXPECT_EQ(resource.caps.path, GpuPath::target);
    EXPECT_EQ(fakegl::liveObjects("program"), 3u);
    EXPECT_NE(engine->cache_input_fd, nullptr);
}

TEST_F(RemapContext, EachFailedStepReturnsOneWithItsMessage)
{
    struct Row {
        void (*inject)();
        const char* out;
        const char* err;
    } rows[] = {
        {[] { fakegl::inject().noDisplay = true; }, "eglGetDisplay returned EGL_NO_DISPLAY.\n", ""},
        {[] { fakegl::inject().initializeFails = true; }, "eglInitialize failed\n",
         "eglInitialize() returned 0\nafter eglInitialize() eglError (0x3001)\n"},
        {[] { fakegl::inject().numConfigs = 0; }, "eglCreateWindowSurface failed.\n",
         "after eglCreateWindowSurface() eglError (0x3005)\n"},
        {[] { fakegl::inject().noContext = true; }, "eglCreateContext failed\n", ""},
        {[] { fakegl::inject().makeCurrentFails = true; }, "",
         "eglMakeCurrent() returned 0\nafter eglMakeCurrent() eglError (0x3002)\n"},
        // A fallback that fails as well leaves the ordinary failure.
        {[] { fakegl::inject().initializeFails = true, fakegl::inject().eglClientExtensions = "EGL_MESA_platform_surfaceless"; },
         "eglInitialize failed\n", ""},
    };
    for (const Row& row : rows) {
        fakegl::reset();
        row.inject();
        EXPECT_EQ(init(), 1) << row.out;
        EXPECT_EQ(out, row.out);
        EXPECT_NE(err.find(row.err), std::string::npos) << err;
        EXPECT_EQ(fakegl::countCalls("glCreateShader"), 0u);
    }
    fakegl::reset();
    fakegl::inject().numConfigs = 0;  // the pbuffer configs are tried before giving up
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(fakegl::callsTo("eglChooseConfig").back().attribs, configList(EGL_PBUFFER_BIT));
}

TEST_F(RemapContext, WithoutAWindowSystemFallsBackToSurfacelessAndPbuffer)
{
    fakegl::inject().initializeFailsOnDefaultDisplay = true;
    fakegl::inject().noWindowConfigs = true;
    fakegl::inject().eglClientExtensions = "EGL_EXT_platform_base EGL_MESA_platform_surfaceless";
    ASSERT_EQ(init(), 0) << out << err;
    EXPECT_EQ(engine->dpy, eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, nullptr, nullptr));
    EXPECT_EQ(resource.dpy, engine->dpy);
    EXPECT_EQ(fakegl::callsTo("eglChooseConfig").back().attribs, configList(EGL_PBUFFER_BIT));
}

TEST_F(RemapContext, ShaderBuildFailures)
{
    // Compile failure with a log: set-up stops; the vertex shader is not deleted on that path.
    fakegl::inject().failCompileAt = 2;
    fakegl::inject().compileLog = "0:5: bad sampler";
    EXPECT_EQ(init(), 1);
    EXPECT_NE(err.find("Could not compile shader 35632:\n0:5: bad sampler\n"), std::string::npos);
    EXPECT_EQ(fakegl::liveObjects("shader"), 1u);
    EXPECT_EQ(fakegl::countCalls("glCreateProgram"), 0u);

    // Without a log the failed shader goes on to the link, which catches it; earlier programs stay.
    fakegl::reset();
    fakegl::inject().failCompileAt = 4;
    fakegl::inject().failLinkAt = 2;
    fakegl::inject().linkLog = "varyings differ";
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(err.find("Could not compile"), std::string::npos);
    EXPECT_NE(err.find("Could not link program:\nvaryings differ\n"), std::string::npos);
    EXPECT_TRUE(engine->gProgram != 0 && engine->gProgramRGB == 0);
    EXPECT_EQ(fakegl::liveObjects("program"), 1u);
    EXPECT_EQ(fakegl::liveObjects("shader"), 0u);

    fakegl::reset();
    fakegl::inject().failLinkAt = 1;  // no log: silent, still a failure
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(err.find("Could not link"), std::string::npos);
}

TEST_F(RemapContext, DeinitDeletesEveryObjectOnceInOrder)
{
    ASSERT_EQ(init(), 0);
    // Camera 0 has two overlap framebuffers; camera 1's set-up stopped before its second one.
    PSR_INITPARAMS_T& layout = engine->_remap_init_params;
    layout.camera_num = 2;
    layout.overlap_block.resize(2);
    layout.overlap_block[0].overlap_num = layout.overlap_block[1].overlap_num = 2;
    engine->overlapFramebuffer.assign(2, {});
    for (int made : {0, 0, 1}) {
        drmSharedFramebuffer fb{};
        glGenFramebuffers(1, &fb.fbo_id);
        glGenTextures(1, &fb.texture_id);
        engine->overlapFramebuffer[made].push_back(fb);
    }
    // Import slots: an output (framebuffer and texture) and an input (texture only).
    glGenFramebuffers(1, &engine->create_texture_fbo_status[0].fbo_id);
    glGenTextures(1, &engine->create_texture_fbo_status[0].texture_id);
    glGenTextures(1, &engine->create_texture_fbo_status[1].texture_id);
    const size_t start = fakegl::calls().size();

    std::string log = stdoutOf([&] { EXPECT_EQ(engine->ZQ_EGL_Deinit(), 0); });
    engine.get_deleter().deinitialised = true;
    EXPECT_TRUE(hasErrorLine(log, "ZQ_EGL_Deinit", "camera 1 has 1 overlap framebuffers of 2; deleting those"));
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
    for (const char* kind : {"texture", "framebuffer", "program", "surface", "context"})
        EXPECT_EQ(fakegl::liveObjects(kind), 0u) << kind;
    const std::string pair = "glDeleteFramebuffers glDeleteTextures ";  // overlap framebuffers, then import slots
    EXPECT_EQ(callSequence("Delete|Destroy|^eglMakeCurrent$|^eglTerminate$", start),
              pair + pair + pair + "glDeleteFramebuffers glDeleteTextures*2 glDeleteProgram*3 eglDestroySurface eglDestroyContext "
                                          "eglMakeCurrent eglTerminate");
    std::vector<int64_t> programs;
    for (const fakegl::Call& call : fakegl::callsTo("glDeleteProgram")) programs.push_back(call.args[0]);
    EXPECT_EQ(programs, (std::vector<int64_t>{engine->gProgram, engine->gProgramRGB, engine->gProgramRGBtoYUV}));
}

class RemapFence : public InitialisedEngine {};

TEST_F(RemapFence, OnlyASuccessfulWaitReleasesTheFence)
{
    void* sync = engine->gles_create_sync();
    ASSERT_NE(sync, nullptr);
    EXPECT_EQ(fakegl::callsTo("eglCreateSyncKHR")[0].args[1], EGL_SYNC_FENCE_KHR);

    fakegl::inject().clientWaitResult = EGL_TIMEOUT_EXPIRED_KHR;
    std::string out = stdoutOf([&] { EXPECT_EQ(engine->gles_wait_sync(sync), 1); });
    EXPECT_TRUE(hasErrorLine(out, "gles_wait_sync", "GLProcess: fence wait timed out"));
    EXPECT_EQ(fakegl::liveObjects("sync"), 1u);

    // Any other result counts as signalled when no EGL error is pending.
    fakegl::inject().clientWaitResult = EGL_FALSE;
    EXPECT_EQ(engine->gles_wait_sync(sync), 0);
    EXPECT_EQ(fakegl::liveObjects("sync"), 0u);

    out = stdoutOf([&] { EXPECT_EQ(engine->gles_wait_sync(nullptr), 1); });
    EXPECT_TRUE(hasErrorLine(out, "gles_wait_sync", "GLProcess: error waiting on EGL fence: 0x300c"));
    EXPECT_EQ(fakegl::countCalls("eglDestroySyncKHR"), 1u);

    fakegl::inject().noSync = true;
    out = stdoutOf([&] { EXPECT_EQ(engine->gles_create_sync(), nullptr); });
    EXPECT_TRUE(hasErrorLine(out, "gles_create_sync", "failed to create EGL native fence sync"));
}

}  // namespace
