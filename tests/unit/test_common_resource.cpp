// dma-buf import helpers, attribute lists and GL diagnostics, against the fake driver.
#include <gtest/gtest.h>

#include <regex>
#include <vector>

#include "gl/common_resource.h"
#include "gl/import_core.h"
#include "remap_engine_support.h"

using namespace zqgfx_gpu_avs;
using namespace remap_test;

namespace {

const EGLDisplay kDpy = reinterpret_cast<EGLDisplay>(7);

class CommonResource : public testing::Test {
protected:
    void SetUp() override { fakegl::reset(); }
    GLuint tex = 0;
};

// The YUV and plane lists are checked where the engines import camera images and the output.
TEST_F(CommonResource, ImageAttributeLists)
{
    // BGR888: three bytes per pixel of the 16-aligned row length.
    create_rgb_fbo_2D(kDpy, 36, 100, 8, 1000, &tex);
    EXPECT_EQ(fakegl::attribValue(fakegl::callsTo("eglCreateImageKHR").back(), EGL_DMA_BUF_PLANE0_PITCH_EXT), 3024);

    EglAttribList full;
    int accepted = 0;
    std::string out = stdoutOf([&] {
        while (full.push(EGL_WIDTH, accepted) && accepted < 100) ++accepted;
    });
    EXPECT_EQ(accepted, (EglAttribList::kCapacity - 1) / 2);  // room is kept for the terminator
    EXPECT_TRUE(hasErrorLine(out, "push", "EGL attribute list full, 0x3057 dropped"));
}

TEST_F(CommonResource, FailuresReturnMinusOneAndFailedTracedCallsOnlyReport)
{
    fakegl::inject().framebufferStatus = GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT;
    std::string out = stdoutOf([&] {
        EXPECT_EQ(create_rgb_fbo_2D(kDpy, 42, 64, 32, 64, &tex), -1);
        EXPECT_EQ(create_fbo_no_fd(64, 32, &tex), -1);
    });
    EXPECT_TRUE(hasErrorLine(out, "create_fbo_no_fd", "zq_debug create fbo failed!\n"));
    // Nothing is released on this path; the texture name has been handed out already.
    EXPECT_EQ(fakegl::liveObjects("image") + fakegl::liveObjects("framebuffer"), 1u + 2u);
    EXPECT_TRUE(fakegl::isLive("texture", tex));

    // A failed traced call writes its error line and the helper carries on.
    fakegl::reset();
    fakegl::failCall("glFramebufferTexture2D", GL_INVALID_OPERATION);
    out = stdoutOf([&] { EXPECT_GT(create_yuv_fbo_by_fd(kDpy, 0, 40, 64, 32, &tex), 0); });
    EXPECT_TRUE(std::regex_search(out, std::regex(R"(libzqgfx_avs: create_yuv_fbo_by_fd,line=(\d+): ERROR: <<< )"
                                                  R"(glFramebufferTexture2D\(GL_FRAMEBUFFER,.*\): failed: 0x0502 )"
                                                  R"(\( \) \(create_yuv_fbo_by_fd:\1\)\n)")))
        << out;
}

// Whatever step fails, an import leaves nothing alive, unless it is one of the interface's
// importers, which keep what they made; a finished one leaves its texture and framebuffer only.
TEST_F(CommonResource, AFailedImportReleasesWhatItMadeUnlessTheInterfaceKeepsIt)
{
    const struct Row {
        const char* name;
        void (*inject)();
        bool keep;
        ImportFailure failure;
        size_t images, textures, framebuffers;  // alive while the import is held
    } rows[] = {
        {"imported", [] {}, false, ImportFailure::none, 0, 1, 1},
        {"image refused", [] { fakegl::inject().nullImageFrom = 1; }, false, ImportFailure::image, 0, 0, 0},
        {"image not bound", [] { fakegl::failCall("glEGLImageTargetTexture2DOES", GL_INVALID_OPERATION); }, false,
         ImportFailure::texture, 0, 0, 0},
        {"framebuffer incomplete", [] { fakegl::inject().framebufferStatus = GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT; },
         false, ImportFailure::framebuffer, 0, 0, 0},
        {"framebuffer incomplete, kept", [] { fakegl::inject().framebufferStatus = GL_FRAMEBUFFER_UNSUPPORTED; }, true,
         ImportFailure::framebuffer, 1, 1, 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        fakegl::reset();
        row.inject();
        DmaBufImportSteps steps;
        steps.framebuffer = steps.checkErrors = true;
        steps.keepOnFailure = row.keep;
        {
            DmaBufImport made = importDmaBuf(kDpy, planeImageAttribs(kFourccR8, 5, 8, 4, 0, 16), steps);
            EXPECT_EQ(made.failure, row.failure);
            EXPECT_EQ(fakegl::liveObjects("image"), row.images);
            EXPECT_EQ(fakegl::liveObjects("texture"), row.textures);
            EXPECT_EQ(fakegl::liveObjects("framebuffer"), row.framebuffers);
        }
        EXPECT_EQ(fakegl::liveObjects("texture") + fakegl::liveObjects("framebuffer") + fakegl::doubleDeletes(), 0u);
    }
}

TEST_F(CommonResource, ChromaRectanglesTakeEveryPairTheirColumnsTouch)
{
    const OutputPlane luma{0, 1, 0}, chroma{0, 2, 1};
    const struct {
        OutputPlane plane;
        int x, w, h, rx, rw, rh;
    } rows[] = {{luma, 3, 5, 7, 3, 5, 7}, {chroma, 4, 6, 8, 2, 3, 4}, {chroma, 3, 5, 7, 1, 3, 4}, {chroma, 3, 4, 8, 1, 3, 4}};
    for (const auto& r : rows) {
        const PlaneRect rect = onPlane(r.plane, r.x, 0, r.w, r.h);
        EXPECT_EQ(std::vector<int>({rect.x, rect.y, rect.w, rect.h}), std::vector<int>({r.rx, 0, r.rw, r.rh})) << r.x;
    }
}

TEST_F(CommonResource, PathFromCapabilities)
{
    // Whole names only: a modifiers-only driver must not pass for one that imports dma-bufs.
    struct Row {
        const char* egl;
        const char* gl;
        bool probeImportFails;
        GpuPath path;
    } rows[] = {
        {"EGL_EXT_image_dma_buf_import", "GL_OES_EGL_image GL_EXT_YUV_target", false, GpuPath::target},
        {"EGL_EXT_image_dma_buf_import", "GL_OES_EGL_image", false, GpuPath::planes},
        {"EGL_EXT_image_dma_buf_import", "GL_OES_EGL_image", true, GpuPath::portable},
        {"EGL_EXT_image_dma_buf_import_modifiers", "GL_OES_EGL_image GL_EXT_YUV_target", false, GpuPath::portable},
    };
    for (const Row& row : rows) {
        fakegl::reset();
        fakegl::inject().eglExtensions = row.egl;
        fakegl::inject().glExtensions = row.gl;
        fakegl::inject().eglClientExtensions = "EGL_EXT_platform_base EGL_MESA_platform_surfaceless";
        if (row.probeImportFails) fakegl::inject().nullImageFrom = 1;
        AvsGpuCaps caps = detectGpuCaps(kDpy);
        EXPECT_EQ(caps.path, row.path) << row.egl << " / " << row.gl << " / " << row.probeImportFails;
        EXPECT_TRUE(caps.has_EGL_MESA_platform_surfaceless);
        // The probe leaves nothing behind and no error pending.
        EXPECT_EQ(fakegl::liveObjects("image") + fakegl::liveObjects("texture") + fakegl::liveObjects("framebuffer"), 0u);
        EXPECT_EQ(eglGetError(), EGL_SUCCESS);
    }
    // An EGL 1.4 driver refuses the client query; its error must not surface at a later check.
    fakegl::inject().noClientExtensions = true;
    EXPECT_FALSE(detectGpuCaps(kDpy).has_EGL_MESA_platform_surfaceless);
    EXPECT_EQ(eglGetError(), EGL_SUCCESS);
}

}  // namespace
