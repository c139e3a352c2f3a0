// Remap engine context, programs, tear-down, fences and the per-frame import of camera and output
// dma-bufs into the slot table, against the fake driver.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "remap_engine_support.h"

using namespace zqgfx_gpu_avs;
using namespace remap_test;

namespace {

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
    // The count, then the configs; no fallback on a driver that needs none.
    EXPECT_EQ(callSequence("^egl(GetDisplay|GetPlatformDisplay|Initialize|ChooseConfig|GetConfigAttrib|"
                           "CreatePbufferSurface|CreateContext|MakeCurrent)$|^glCreateProgram$"),
              "eglGetDisplay eglInitialize eglChooseConfig*2 eglCreatePbufferSurface eglCreateContext "
              "eglMakeCurrent glCreateProgram*3");
    EXPECT_EQ(fakegl::callsTo("eglChooseConfig")[0].attribs,
              (std::vector<EGLint>{EGL_BUFFER_SIZE, 32, EGL_ALPHA_SIZE, 8, EGL_BLUE_SIZE, 8, EGL_GREEN_SIZE, 8,
                                   EGL_RED_SIZE, 8, EGL_SURFACE_TYPE, EGL_WINDOW_BIT, EGL_RENDERABLE_TYPE,
                                   EGL_OPENGL_ES2_BIT, EGL_NONE}));

    EXPECT_TRUE(resource.dpy == engine->dpy && resource.context == engine->context &&
                resource.surface == engine->surface);
    EXPECT_EQ(fakegl::liveObjects("program"), 3u);
}

// Set-up stops at the first failed step and keeps what it built; the compile and link helpers
// are shared with the blend engine, whose tests check their logs.
TEST_F(RemapContext, EachFailedStepFailsInitWithItsMessage)
{
    struct Row {
        void (*inject)();
        const char* out;
        size_t shaders, programs;  // left alive
    } rows[] = {
        {[] { fakegl::inject().noDisplay = true; }, "eglGetDisplay returned EGL_NO_DISPLAY.\n", 0, 0},
        {[] { fakegl::inject().initializeFails = true; }, "eglInitialize failed\n", 0, 0},
        {[] { fakegl::inject().numConfigs = 0; }, "eglCreateWindowSurface failed.\n", 0, 0},
        {[] { fakegl::inject().noContext = true; }, "eglCreateContext failed\n", 0, 0},
        {[] { fakegl::inject().makeCurrentFails = true; }, "", 0, 0},  // reported on standard error only
        // A fallback that fails as well leaves the ordinary failure.
        {[] { fakegl::inject().initializeFails = true, fakegl::inject().eglClientExtensions = "EGL_MESA_platform_surfaceless"; },
         "eglInitialize failed\n", 0, 0},
        // A fragment shader that fails with a log: the vertex shader is not deleted on that path.
        {[] { fakegl::inject().failCompileAt = 2, fakegl::inject().compileLog = "bad"; }, "", 1, 0},
        // Without a log the failed shader goes on to the link, which catches it; the first program stays.
        {[] { fakegl::inject().failCompileAt = 4, fakegl::inject().failLinkAt = 2; }, "", 0, 1},
    };
    for (const Row& row : rows) {
        fakegl::reset();
        row.inject();
        EXPECT_EQ(init(), 1) << row.out << err;
        EXPECT_EQ(out, row.out);
        EXPECT_EQ(fakegl::liveObjects("shader"), row.shaders) << row.out;
        EXPECT_EQ(fakegl::liveObjects("program"), row.programs) << row.out;
    }
}

// Without a window system the default display does not initialise: Mesa's surfaceless platform
// stands in, else the first EGL device that initialises (NVIDIA), else init fails as before.
TEST_F(RemapContext, WithoutAWindowSystemFallsBackToAHeadlessPlatformAndPbuffer)
{
    const auto surfaceless = [] { return eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, nullptr, nullptr); };
    const auto firstDevice = [] {
        EGLDeviceEXT device = reinterpret_cast<EGLDeviceEXT>(uintptr_t{1});
        return eglGetPlatformDisplay(EGL_PLATFORM_DEVICE_EXT, device, nullptr);
    };
    struct Row {
        const char* clientExtensions;
        int devices;
        EGLDisplay (*expected)();  // null: init fails
    } rows[] = {
        {"EGL_EXT_platform_base EGL_MESA_platform_surfaceless EGL_EXT_platform_device", 1, surfaceless},
        {"EGL_EXT_platform_base EGL_EXT_device_enumeration EGL_EXT_platform_device", 2, firstDevice},
        {"EGL_EXT_platform_base EGL_EXT_device_enumeration EGL_EXT_platform_device", 0, nullptr},
        {"EGL_EXT_platform_base", 1, nullptr},
    };
    for (const Row& row : rows) {
        fakegl::reset();
        fakegl::inject().initializeFailsOnDefaultDisplay = true;
        fakegl::inject().noWindowConfigs = true;
        fakegl::inject().eglClientExtensions = row.clientExtensions;
        fakegl::inject().devices = row.devices;
        const int result = init();
        SCOPED_TRACE(std::string(row.clientExtensions) + ", devices " + std::to_string(row.devices));
        if (row.expected == nullptr) {
            EXPECT_EQ(result, 1);
            EXPECT_EQ(out, "eglInitialize failed\n");
            continue;
        }
        ASSERT_EQ(result, 0) << out << err;
        EXPECT_EQ(engine->dpy, row.expected());
        EXPECT_EQ(fakegl::attribValue(fakegl::callsTo("eglChooseConfig").back(), EGL_SURFACE_TYPE), EGL_PBUFFER_BIT);
    }
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
    const size_t start = fakegl::calls().size();

    std::string log = stdoutOf([&] { EXPECT_EQ(engine->ZQ_EGL_Deinit(), 0); });
    engine.get_deleter().deinitialised = true;
    EXPECT_TRUE(hasErrorLine(log, "ZQ_EGL_Deinit", "camera 1 has 1 overlap framebuffers of 2; deleting those"));
    for (const char* kind : {"texture", "framebuffer", "program", "surface", "context"})
        EXPECT_EQ(fakegl::liveObjects(kind), 0u) << kind;
    // Destroyed while still current, then released and terminated.
    const std::string pair = "glDeleteFramebuffers glDeleteTextures ";
    EXPECT_EQ(callSequence("Delete|Destroy|^eglMakeCurrent$|^eglTerminate$", start),
              pair + pair + pair + "glDeleteProgram*3 eglDestroySurface eglDestroyContext eglMakeCurrent eglTerminate");
}

class RemapFence : public RemapContext {};

TEST_F(RemapFence, OnlyASuccessfulWaitReleasesTheFence)
{
    ASSERT_EQ(init(), 0);
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

    fakegl::inject().noSync = true;
    out = stdoutOf([&] { EXPECT_EQ(engine->gles_create_sync(), nullptr); });
    EXPECT_TRUE(hasErrorLine(out, "gles_create_sync", "failed to create EGL native fence sync"));
}

// Two cameras of 1000 x 720 into a 1900 x 720 panorama of stride 2048, on an initialised engine.
class RemapImport : public RemapContext {
protected:
    void SetUp() override
    {
        RemapContext::SetUp();
        ASSERT_EQ(init(), 0);
        PSR_INITPARAMS_T& p = engine->_remap_init_params;
        p.camera_num = 2, p.src_width = 1000, p.src_height = 720;
        p.bld_width = 1900, p.bld_height = 720, p.output_image_stride = 2048;
    }

    int frame(std::vector<int> fds, uint32_t inputAfbc = 0)
    {
        return engine->create_texture_and_fbo(fds.data(), inputAfbc, 0, &outFbo);
    }
    const textureAndFboStatus& slot(int i) const { return engine->create_texture_fbo_status[i]; }

    GLuint outFbo = 0;
};

TEST_F(RemapImport, EachDescriptorIsImportedOnce)
{
    ASSERT_EQ(frame({11, 12, 20}), 0);
    std::vector<fakegl::Call> images = fakegl::callsTo("eglCreateImageKHR");
    ASSERT_EQ(images.size(), 3u);
    // NV12 on one descriptor. Inputs: pitch rounded up to 16, chroma right after luma. Output: the
    // caller's stride as is. The textures hold the images.
    EXPECT_EQ(images[0].attribs,
              (std::vector<EGLint>{EGL_WIDTH, 1000, EGL_HEIGHT, 720, EGL_LINUX_DRM_FOURCC_EXT, 0x3231564E,
                                   EGL_DMA_BUF_PLANE0_FD_EXT, 11, EGL_DMA_BUF_PLANE0_OFFSET_EXT, 0,
                                   EGL_DMA_BUF_PLANE0_PITCH_EXT, 1008, EGL_DMA_BUF_PLANE1_FD_EXT, 11,
                                   EGL_DMA_BUF_PLANE1_OFFSET_EXT, 1008 * 720, EGL_DMA_BUF_PLANE1_PITCH_EXT, 1008,
                                   EGL_NONE}));
    EXPECT_EQ(fakegl::attribValue(images[2], EGL_DMA_BUF_PLANE1_OFFSET_EXT), 2048 * 720);
    EXPECT_EQ(fakegl::liveObjects("image"), 0u);
    EXPECT_EQ(engine->textureID, (std::vector<GLuint>{slot(0).texture_id, slot(1).texture_id}));
    EXPECT_TRUE(slot(1).fbo_id == 0 && outFbo == slot(2).fbo_id && engine->fbo_texture0 == slot(2).texture_id);

    // Known descriptors keep their imports, whichever camera brings them.
    const std::vector<GLuint> inputs = engine->textureID;
    ASSERT_EQ(frame({12, 11, 20}), 0);
    EXPECT_EQ(fakegl::createdObjects("image"), 3u);
    EXPECT_EQ(engine->textureID, (std::vector<GLuint>{inputs[1], inputs[0]}));

    // AFBC inputs: one plane with the 16x16 sparse modifier; the output follows its own flag.
    engine->destroy_texture_and_fbo();
    ASSERT_EQ(frame({11, 12, 20}, 1), 0);
    images = fakegl::callsTo("eglCreateImageKHR");
    EXPECT_EQ(fakegl::attribValue(images[3], EGL_DMA_BUF_PLANE0_MODIFIER_HI_EXT), 0x08000000);
    EXPECT_EQ(fakegl::attribValue(images[3], EGL_DMA_BUF_PLANE1_FD_EXT), -1);
    EXPECT_EQ(fakegl::attribValue(images[5], EGL_LINUX_DRM_FOURCC_EXT), 0x3231564E);
}

TEST_F(RemapImport, TableIsFlushedOnceTheLastSlotIsUsed)
{
    for (int f = 0; f < 33; ++f) ASSERT_EQ(frame({100 + 3 * f, 101 + 3 * f, 102 + 3 * f}), 0);  // slots 0-98
    ASSERT_EQ(frame({500, 501, 502}), 0);  // one slot left: 501 and 502 keep last frame's names
    EXPECT_EQ(engine->cache_input_fd[99], 500u);
    ASSERT_EQ(frame({100, 101, 102}), 0);  // then everything is deleted and imported anew from slot 0
    EXPECT_TRUE(engine->cache_input_fd[0] == 100u && engine->cache_input_fd[99] == 0u);
    EXPECT_EQ(fakegl::liveObjects("texture"), 3u);
}

TEST_F(RemapImport, FailedImportsAreRecordedAndTheFrameGoesOn)
{
    // The importers' all-bits-set failure passes the frame's test for 0.
    fakegl::inject().nullImageFrom = 1;
    int result = -1;
    const std::string log = stdoutOf([&] { result = frame({11, 12, 20}); });
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(hasErrorLine(log, "create_egl_texture", "avs-debug eglCreateImageKHR NULL! stride=1008,height=720,fd=11\n"));
    EXPECT_TRUE(hasErrorLine(log, "create_fbo_output", "avs-debug eglCreateImageKHR NULL! stride=2048,height=720,fd=20\n"));
    EXPECT_EQ(engine->textureID[0], 0xFFFFFFFFu);
    EXPECT_EQ(outFbo, 0xFFFFFFFFu);
}

}  // namespace
