// Remap engine context, programs, tear-down and fences, against the fake driver.
#include <gtest/gtest.h>

#include <string>
#include <utility>
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
    EXPECT_EQ(fakegl::callsTo("eglChooseConfig")[0].attribs, configList(EGL_WINDOW_BIT));
    EXPECT_EQ(fakegl::callsTo("eglCreateContext")[0].attribs,
              (std::vector<EGLint>{EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE}));
    long previous = -1;
    for (const char* fn : {"eglGetDisplay", "eglInitialize", "eglChooseConfig", "eglCreatePbufferSurface",
                           "eglCreateContext", "eglMakeCurrent", "glCreateProgram"}) {
        EXPECT_GT(fakegl::findCall(fn), previous) << fn;
        previous = fakegl::findCall(fn);
    }
    EXPECT_EQ(std::make_pair(resource.dpy, resource.context), std::make_pair(engine->dpy, engine->context));
    EXPECT_EQ(fakegl::liveObjects("program"), 3u);
}

TEST_F(RemapContext, EachFailedStepReturnsOneWithItsMessage)
{
    struct Row { void (*inject)(); const char *out, *err; };
    const Row rows[] = {
        {[] { fakegl::inject().noDisplay = true; }, "eglGetDisplay returned EGL_NO_DISPLAY.\n", ""},
        {[] { fakegl::inject().initializeFails = true; }, "eglInitialize failed\n",
         "eglInitialize() returned 0\nafter eglInitialize() eglError (0x3001)\n"},
        {[] { fakegl::inject().numConfigs = 0; }, "eglCreateWindowSurface failed.\n",
         "after eglCreateWindowSurface() eglError (0x3005)\n"},
        {[] { fakegl::inject().noContext = true; }, "eglCreateContext failed\n", ""},
        {[] { fakegl::inject().makeCurrentFails = true; }, "",
         "eglMakeCurrent() returned 0\nafter eglMakeCurrent() eglError (0x3002)\n"},
    };
    for (const Row& row : rows) {
        fakegl::reset();
        row.inject();
        EXPECT_EQ(init(), 1);
        EXPECT_EQ(out, row.out);
        EXPECT_NE(err.find(row.err), std::string::npos) << err;
        EXPECT_EQ(fakegl::countCalls("glCreateShader"), 0u);
    }
}

TEST_F(RemapContext, WithoutAWindowSystemFallsBackToSurfacelessAndPbuffer)
{
    fakegl::inject().initializeFailsOnDefaultDisplay = true;
    fakegl::inject().noWindowConfigs = true;
    fakegl::inject().eglClientExtensions = "EGL_EXT_platform_base EGL_MESA_platform_surfaceless";
    ASSERT_EQ(init(), 0) << out << err;
    EXPECT_EQ(engine->dpy, eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, nullptr, nullptr));
    EXPECT_EQ(fakegl::callsTo("eglChooseConfig").back().attribs, configList(EGL_PBUFFER_BIT));
}

TEST_F(RemapContext, ShaderBuildFailures)
{
    // Compile failure with a log stops set-up; the vertex shader is not deleted on that path.
    fakegl::inject().failCompileAt = 2;
    fakegl::inject().compileLog = "0:5: bad sampler";
    EXPECT_EQ(init(), 1);
    EXPECT_NE(err.find("Could not compile shader 35632:\n0:5: bad sampler\n"), std::string::npos);
    EXPECT_EQ(fakegl::liveObjects("shader"), 1u);

    // Without a log the link catches it; earlier programs stay.
    fakegl::reset();
    fakegl::inject().failCompileAt = 4;
    fakegl::inject().failLinkAt = 2;
    fakegl::inject().linkLog = "varyings differ";
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(err.find("Could not compile"), std::string::npos);
    EXPECT_NE(err.find("Could not link program:\nvaryings differ\n"), std::string::npos);
    EXPECT_EQ(fakegl::liveObjects("program"), 1u);
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
        engine->overlapFramebuffer[made].emplace_back();
        glGenFramebuffers(1, &engine->overlapFramebuffer[made].back().fbo_id);
        glGenTextures(1, &engine->overlapFramebuffer[made].back().texture_id);
    }
    // Import slots: an output (framebuffer and texture) and an input (texture only).
    glGenFramebuffers(1, &engine->create_texture_fbo_status[0].fbo_id);
    for (int i : {0, 1}) glGenTextures(1, &engine->create_texture_fbo_status[i].texture_id);
    size_t start = fakegl::calls().size();

    std::string log = stdoutOf([&] { EXPECT_EQ(engine->ZQ_EGL_Deinit(), 0); });
    engine.get_deleter().deinitialised = true;
    EXPECT_TRUE(hasErrorLine(log, "ZQ_EGL_Deinit", "camera 1 has 1 overlap framebuffers of 2; deleting those"));
    EXPECT_EQ(fakegl::doubleDeletes() + fakegl::liveObjects("texture") + fakegl::liveObjects("framebuffer"), 0u);

    std::vector<std::string> sequence;
    for (size_t i = start; i < fakegl::calls().size(); ++i)
        if (fakegl::calls()[i].fn.find("Delete") != std::string::npos || fakegl::calls()[i].fn.find("egl") == 0)
            sequence.push_back(fakegl::calls()[i].fn);
    const std::string fb = "glDeleteFramebuffers", tex = "glDeleteTextures", prog = "glDeleteProgram";
    EXPECT_EQ(sequence, (std::vector<std::string>{fb, tex, fb, tex, fb, tex, fb, tex, tex, prog, prog, prog,
                                                  "eglDestroySurface", "eglDestroyContext", "eglMakeCurrent",
                                                  "eglTerminate"}));
}

class RemapFence : public InitialisedEngine {};
TEST_F(RemapFence, OnlyASuccessfulWaitReleasesTheFence)
{
    void* sync = engine->gles_create_sync();
    ASSERT_NE(sync, nullptr);
    fakegl::inject().clientWaitResult = EGL_TIMEOUT_EXPIRED_KHR;  // a timeout keeps the fence
    std::string out = stdoutOf([&] { EXPECT_EQ(engine->gles_wait_sync(sync), 1); });
    EXPECT_TRUE(hasErrorLine(out, "gles_wait_sync", "GLProcess: fence wait timed out"));
    EXPECT_EQ(fakegl::liveObjects("sync"), 1u);
    const std::vector<int64_t> wait = fakegl::callsTo("eglClientWaitSyncKHR")[0].args;
    EXPECT_EQ(std::vector<int64_t>(wait.begin() + 1, wait.end()),
              (std::vector<int64_t>{reinterpret_cast<int64_t>(sync), EGL_SYNC_FLUSH_COMMANDS_BIT_KHR, 2000000000}));

    fakegl::inject().clientWaitResult = EGL_FALSE;
    EXPECT_EQ(engine->gles_wait_sync(sync), 0);
    EXPECT_EQ(fakegl::liveObjects("sync"), 0u);

    out = stdoutOf([&] { EXPECT_EQ(engine->gles_wait_sync(nullptr), 1); });
    EXPECT_TRUE(hasErrorLine(out, "gles_wait_sync", "GLProcess: error waiting on EGL fence: 0x300c"));
    fakegl::inject().noSync = true;
    out = stdoutOf([&] { EXPECT_EQ(engine->gles_create_sync(), nullptr); });
    EXPECT_TRUE(hasErrorLine(out, "gles_create_sync", "failed to create EGL native fence sync"));
}

}  // namespace
