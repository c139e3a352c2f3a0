// Whole instances on drivers without YUV render targets (the fake driver told so), with and
// without dma-buf import: camera images and the output are memfds that the library imports as
// plane images or maps itself.
#include <sys/mman.h>
#include <unistd.h>

#include <drm_fourcc.h>

#include <set>

#include "blend_engine_support.h"
#include "calibration_dir.h"
#include "portable_yuv.h"
#include "unit/remap_engine_support.h"
#include "zqgfx_gpu_avs_internal.h"

using entry_test::contains;
using entry_test::stdoutOf;
using zqgfx_gpu_avs::BlendEngineTestAccess;

namespace {

int memfdOf(size_t bytes)
{
    const int fd = memfd_create("portable-wiring", MFD_CLOEXEC);
    return fd >= 0 && ftruncate(fd, static_cast<off_t>(bytes)) == 0 ? fd : -1;
}

struct PlanePath {
    const char* name;
    const char* eglExtensions;
};
const PlanePath kPlanePaths[] = {
    {"portable", "EGL_KHR_image_base EGL_KHR_fence_sync"},
    {"planes", "EGL_KHR_image_base EGL_EXT_image_dma_buf_import EGL_KHR_fence_sync"},
};

class PortableWiring : public ::testing::TestWithParam<PlanePath> {
protected:
    bool zeroCopy() const { return std::string(GetParam().name) == "planes"; }
    // Four 320 x 240 cameras into 1280 x 240; seams 0-1, 1-2, 2-3 blended with three levels of U8
    // alpha 64 wide, so that level 2 and a wide alpha level exist.
    void SetUp() override
    {
        fakegl::reset();
        fakegl::inject().glExtensions = "GL_OES_EGL_image GL_OES_EGL_image_external";
        fakegl::inject().eglExtensions = GetParam().eglExtensions;
        avs_thread_state() = AvsThreadInstance{};
        layout = entry_test::ringLayout(4, 1, 2);
        for (zqPSR_OVERLAP_BLOCK& o : layout.overlap_block) o.dst_width.assign(2, 64), o.alpha_width.assign(2, 64);
        layout.overlap_block[3].dst_startx[1] = layout.bld_width - 64;
        dir.writeCalibration(layout);
        const std::vector<uint8_t> alpha(zqgfx_gpu_avs::alphaBufferLength(64, 240, 3), 128);
        for (const char* name : {"zq_ps_gpu_alpha01.bin", "zq_ps_gpu_alpha12.bin", "zq_ps_gpu_alpha23.bin"})
            dir.write(name, alpha.data(), alpha.size());
        context = entry_test::contextFor(layout, dir.path());
        context.avsAlphaType = FUSE_GPU_ALPHA_U8;
        for (int c = 0; c < 4; ++c) fds[c] = memfdOf(zqgfx_gpu_avs::nv12ImageBytes(320, 240));
        fds[4] = memfdOf(zqgfx_gpu_avs::nv12ImageBytes(1280, 240));
        context.inputFdArray = fds;
        ZQGFX_AVS_STATUS status = ZQGFX_AVS_FAILED;
        out = stdoutOf([&] { status = ZQGFX_AVS_init(&context); });
        ASSERT_EQ(status, ZQGFX_AVS_SUCCESS) << out;
    }
    void TearDown() override
    {
        if (avs_thread_state().if_init_avs) stdoutOf([&] { ZQGFX_AVS_deinit(&context); });
        avs_thread_state() = AvsThreadInstance{};
        for (int fd : fds)
            if (fd >= 0) close(fd);
    }
    ZQGFX_AVS_STATUS frame()
    {
        ZQGFX_AVS_STATUS status = ZQGFX_AVS_FAILED;
        out = stdoutOf([&] { status = ZQGFX_AVS_AllProcess(&context); });
        return status;
    }
    zqgfx_gpu_avs::ZQGL_Remap& remap() { return *avs_thread_state().zqRemapInstance; }

    entry_test::TempCalibrationDir dir;
    PSR_INITPARAMS_T layout;
    ZQGFX_AVS_CONTEXT_T context{};
    int fds[5] = {-1, -1, -1, -1, -1};
    std::string out;
};

// The attribute list of a plane image: fourcc, size, descriptor, offset, pitch.
std::vector<EGLint> planeImageOf(const fakegl::Call& call)
{
    std::vector<EGLint> v;
    for (EGLint name : {EGL_LINUX_DRM_FOURCC_EXT, EGL_WIDTH, EGL_HEIGHT, EGL_DMA_BUF_PLANE0_FD_EXT,
                        EGL_DMA_BUF_PLANE0_OFFSET_EXT, EGL_DMA_BUF_PLANE0_PITCH_EXT})
        v.push_back(fakegl::attribValue(call, name));
    return v;
}

TEST_P(PortableWiring, WarmFramesMakeNoObjectsAndMoveFramesTheirPathsWay)
{
    EXPECT_STREQ(ZQGFX_AVS_get_path(), GetParam().name);
    const size_t probeImages = fakegl::countCalls("eglCreateImageKHR");  // level 2 and wide alpha levels are textures
    EXPECT_EQ(probeImages, zeroCopy() ? 1u : 0u);
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    const size_t warm = fakegl::calls().size(), uploads = fakegl::countCalls("glTexSubImage2D");
    const size_t reads = fakegl::countCalls("glReadPixels");
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    EXPECT_EQ(remap_test::callSequence("^glGen|^glCreate|^eglCreate", warm), "");
    const std::vector<fakegl::Call> images = fakegl::callsTo("eglCreateImageKHR");
    if (zeroCopy()) {
        // One import per descriptor and plane, on the first frame only; nothing copied either way.
        const int luma = 320 * 240, stride = 1280;
        const EGLint r8 = DRM_FORMAT_R8, gr88 = DRM_FORMAT_GR88;
        std::vector<std::vector<EGLint>> expected;
        for (int c = 0; c < 4; ++c)
            expected.insert(expected.end(), {{r8, 320, 240, fds[c], 0, 320}, {gr88, 160, 120, fds[c], luma, 320}});
        expected.insert(expected.end(), {{r8, 1280, 240, fds[4], 0, stride}, {gr88, 640, 120, fds[4], stride * 240, stride}});
        ASSERT_EQ(images.size(), probeImages + expected.size());
        for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(planeImageOf(images[probeImages + i]), expected[i]) << i;
        EXPECT_EQ(fakegl::countCalls("glTexSubImage2D") - uploads, 0u);
        EXPECT_EQ(fakegl::countCalls("glReadPixels"), 0u);
    } else {
        EXPECT_TRUE(images.empty());
        EXPECT_EQ(fakegl::countCalls("glTexSubImage2D") - uploads, 2 * 4u);  // both planes of every camera
        // Luma then chroma per covered span, straight from the plane targets.
        const std::vector<fakegl::Call> read = fakegl::callsTo("glReadPixels");
        EXPECT_GT(read.size(), reads);
        for (size_t i = reads; i < read.size(); ++i) EXPECT_EQ(read[i].args[4], i % 2 == 0 ? GL_RED : GL_RG) << i;
    }
    EXPECT_EQ(fakegl::liveObjects("image"), 0u);  // the textures hold the buffers
}

TEST_P(PortableWiring, AfbcShortDescriptorsAndFailedReadBacksFailTheFrameWithTheirReason)
{
    for (uint32_t* afbc : {&context.inputIsAFBC, &context.outputIsAFBC}) {
        *afbc = 1;
        EXPECT_EQ(frame(), ZQGFX_AVS_FAILED);
        const char* what = afbc == &context.inputIsAFBC ? "input" : "output";
        EXPECT_TRUE(contains(out, std::string("AFBC ") + what + " is not supported on the " + GetParam().name + " path"))
            << out;
        EXPECT_EQ(std::count(remap().cache_input_fd, remap().cache_input_fd + 100, 0u), 100);  // none looked at
        EXPECT_EQ(fakegl::countCalls("glTexSubImage2D"), 0u);
        *afbc = 0;
    }

    ASSERT_EQ(ftruncate(fds[2], 100), 0);  // too short for its image: refused, its slot freed again
    EXPECT_EQ(frame(), ZQGFX_AVS_FAILED);
    EXPECT_TRUE(contains(out, "descriptor " + std::to_string(fds[2]) + " holds 100 bytes")) << out;
    EXPECT_EQ(std::count(remap().cache_input_fd, remap().cache_input_fd + 100, static_cast<GLuint>(fds[2])), 0);
    ASSERT_EQ(ftruncate(fds[2], static_cast<off_t>(zqgfx_gpu_avs::nv12ImageBytes(320, 240))), 0);
    EXPECT_EQ(frame(), ZQGFX_AVS_SUCCESS);

    if (zeroCopy()) return;
    fakegl::failCall("glReadPixels", GL_INVALID_OPERATION);
    EXPECT_EQ(frame(), ZQGFX_AVS_FAILED);
    EXPECT_TRUE(contains(out, "read-back of output descriptor " + std::to_string(fds[4]) + " failed")) << out;
}

TEST_P(PortableWiring, FlushResizeAndDeinitReleaseEachPlaneObjectOnce)
{
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    const size_t textures = fakegl::liveObjects("texture"), framebuffers = fakegl::liveObjects("framebuffer");
    // New descriptor numbers every frame fill the 100-slot table; it is flushed along the way.
    std::vector<int> dups;
    const int original[4] = {fds[0], fds[1], fds[2], fds[3]};
    bool flushed = false;
    for (int f = 0; f < 30 && !flushed; ++f) {
        for (int c = 0; c < 4; ++c) dups.push_back(fds[c] = dup(original[c]));
        flushed = remap().cache_input_fd[99] != 0;
        ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS) << "frame " << f;
    }
    ASSERT_TRUE(flushed);
    EXPECT_EQ(fakegl::liveObjects("texture"), textures);  // the flushed inputs' textures went
    for (int c = 0; c < 4; ++c) fds[c] = original[c];
    for (int fd : dups) close(fd);

    context.outputBufferWidth = 630;  // the output slot is made anew at the new size, rows of 640
    ASSERT_EQ(ZQGFX_AVS_resize(&context), ZQGFX_AVS_SUCCESS);
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    EXPECT_EQ(fakegl::liveObjects("framebuffer"), framebuffers);
    if (zeroCopy()) {  // chroma follows the rows of luma, not the pixels
        EXPECT_EQ(planeImageOf(fakegl::callsTo("eglCreateImageKHR").back()),
                  (std::vector<EGLint>{DRM_FORMAT_GR88, 315, 120, fds[4], 640 * 240, 640}));
    }
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);

    // De-init leaves only the alpha textures that its established order skips.
    std::set<GLuint> alphaTextures;
    zqgfx_gpu_avs::zqglMultibandBlend& blend = *avs_thread_state().zqMultibandBlendInstance;
    for (int c = 0; c < 3; ++c)
        for (int l = 0; l < 3; ++l) alphaTextures.insert((*BlendEngineTestAccess::pyramids(blend)[3])[c][l].texture_id);
    stdoutOf([&] { ZQGFX_AVS_deinit(&context); });
    size_t alphaLeft = 0;
    for (GLuint texture : alphaTextures) alphaLeft += fakegl::isLive("texture", texture);
    EXPECT_EQ(fakegl::liveObjects("texture"), alphaLeft);
    for (const char* kind : {"framebuffer", "buffer", "program", "shader", "vertexarray", "image", "context"})
        EXPECT_EQ(fakegl::liveObjects(kind), 0u) << kind;
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
}

TEST_P(PortableWiring, ADescriptorNumberThatNamesAnotherBufferIsImportedAgain)
{
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    const size_t textures = fakegl::createdObjects("texture"), images = fakegl::countCalls("eglCreateImageKHR");
    for (int which : {1, 4}) {  // a camera, then the output: the number stays, the buffer changes
        const int fresh = memfdOf(zqgfx_gpu_avs::nv12ImageBytes(which == 4 ? 1280 : 320, 240));
        ASSERT_EQ(dup2(fresh, fds[which]), fds[which]);
        close(fresh);
    }
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);
    EXPECT_EQ(fakegl::createdObjects("texture") - textures, 2 * 2u);  // both planes of both buffers
    EXPECT_EQ(fakegl::countCalls("eglCreateImageKHR") - images, zeroCopy() ? 4u : 0u);
    ASSERT_EQ(frame(), ZQGFX_AVS_SUCCESS);  // and then kept
    EXPECT_EQ(fakegl::createdObjects("texture") - textures, 2 * 2u);
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Paths, PortableWiring, ::testing::ValuesIn(kPlanePaths),
                         [](const ::testing::TestParamInfo<PlanePath>& info) { return std::string(info.param.name); });

}  // namespace
