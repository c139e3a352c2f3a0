// Per-frame import of camera and output dma-bufs and the slot table, against the fake driver.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "remap_engine_support.h"

using namespace zqgfx_gpu_avs;
using namespace remap_test;

namespace {

TEST(ImportSlotLookup, HitOrFirstFreeSlot)
{
    std::vector<GLuint> table(kImportSlotCount, 0);
    table[0] = 5;
    table[1] = 9;
    table[3] = 7;  // behind a free slot: the free slot is found first
    EXPECT_EQ(findImportSlot(table.data(), 9), 1);
    EXPECT_EQ(findImportSlot(table.data(), 7), 2);
    std::fill(table.begin(), table.end(), 4);
    EXPECT_EQ(findImportSlot(table.data(), 7), -1);
}

class RemapImport : public InitialisedEngine {
protected:
    void SetUp() override
    {
        InitialisedEngine::SetUp();
        PSR_INITPARAMS_T& p = engine->_remap_init_params;
        p.camera_num = 2, p.src_width = 1000, p.src_height = 720;
        p.bld_width = 1900, p.bld_height = 720, p.output_image_stride = 2048;
    }

    int frame(std::vector<int> fds, uint32_t inputAfbc = 0)
    {
        return engine->create_texture_and_fbo(fds.data(), inputAfbc, 0, &outFbo);
    }
    // The error lines a frame wrote; its result goes to `result`.
    std::string frameLog(std::vector<int> fds)
    {
        return stdoutOf([&] { result = frame(fds); });
    }
    const textureAndFboStatus& slot(int i) const { return engine->create_texture_fbo_status[i]; }

    GLuint outFbo = 0;
    int result = 0;
};

TEST_F(RemapImport, FirstFrameImportsEveryDescriptor)
{
    ASSERT_EQ(frame({11, 12, 20}), 0);
    std::vector<fakegl::Call> images = fakegl::callsTo("eglCreateImageKHR");
    ASSERT_EQ(images.size(), 3u);
    // Inputs: pitch rounded up to 16. Output: the caller's stride as is, chroma right after luma.
    EXPECT_EQ(fakegl::attribValue(images[0], EGL_DMA_BUF_PLANE0_PITCH_EXT), 1008);
    EXPECT_EQ(fakegl::attribValue(images[2], EGL_WIDTH), 1900);
    EXPECT_EQ(fakegl::attribValue(images[2], EGL_DMA_BUF_PLANE0_PITCH_EXT), 2048);
    EXPECT_EQ(fakegl::attribValue(images[2], EGL_DMA_BUF_PLANE1_OFFSET_EXT), 2048 * 720);

    EXPECT_EQ(std::vector<GLuint>(engine->cache_input_fd, engine->cache_input_fd + 4),
              (std::vector<GLuint>{11, 12, 20, 0}));
    EXPECT_EQ(engine->textureID, (std::vector<GLuint>{slot(0).texture_id, slot(1).texture_id}));
    EXPECT_TRUE(slot(1).fbo_id == 0 && outFbo == slot(2).fbo_id && engine->fbo_texture0 == slot(2).texture_id);

    // AFBC inputs: one plane with the modifier; the output follows its own flag.
    engine->destroy_texture_and_fbo();
    ASSERT_EQ(frame({11, 12, 20}, 1), 0);
    images = fakegl::callsTo("eglCreateImageKHR");
    EXPECT_EQ(fakegl::attribValue(images[3], EGL_DMA_BUF_PLANE0_MODIFIER_HI_EXT), 0x08000000);
    EXPECT_EQ(fakegl::attribValue(images[3], EGL_DMA_BUF_PLANE1_FD_EXT), -1);
    EXPECT_EQ(fakegl::attribValue(images[5], EGL_LINUX_DRM_FOURCC_EXT), 0x3231564E);
}

TEST_F(RemapImport, KnownDescriptorsAreReusedAndTheOutputRebuiltOnANewBlendSize)
{
    ASSERT_EQ(frame({11, 12, 20}), 0);
    const GLuint firstFbo = outFbo, firstOutTexture = engine->fbo_texture0;
    const std::vector<GLuint> inputs = engine->textureID;

    engine->_remap_init_params.src_width = 640;  // not compared for inputs
    ASSERT_EQ(frame({12, 11, 20}), 0);
    EXPECT_EQ(fakegl::createdObjects("image"), 3u);
    EXPECT_EQ(engine->textureID, (std::vector<GLuint>{inputs[1], inputs[0]}));
    EXPECT_EQ(outFbo, firstFbo);

    engine->_remap_init_params.bld_width = 1280;
    ASSERT_EQ(frame({11, 12, 20}), 0);
    EXPECT_EQ(slot(2).width, 1280);
    EXPECT_EQ(outFbo, slot(2).fbo_id);
    EXPECT_FALSE(fakegl::isLive("framebuffer", firstFbo));
    EXPECT_FALSE(fakegl::isLive("texture", firstOutTexture));
    EXPECT_EQ(engine->cache_input_fd[3], 0u);  // same slot
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
}

TEST_F(RemapImport, ArgumentsAreChecked)
{
    PSR_INITPARAMS_T& p = engine->_remap_init_params;
    std::vector<int> fds(11);
    for (int i = 0; i < 11; ++i) fds[i] = 30 + i;
    struct Row {
        int cameras, srcWidth, bldHeight;
        const char* line;  // none: accepted
    } rows[] = {
        {11, 1000, 720, "input cam_num=11 is illegal"},
        {0, 1000, 720, "input cam_num=0 is illegal"},
        {10, 16383, 720, nullptr},
        {10, 16384, 720, "src_width=16384 or src_height=720 is exceed the gpu max texture size limit!"},
        {10, 1000, 16384, "bld_width=1900 or bld_height=16384 is exceed the gpu max texture size limit!"},
    };
    for (const Row& row : rows) {
        p.camera_num = row.cameras, p.src_width = row.srcWidth, p.bld_height = row.bldHeight;
        const std::string log = frameLog(fds);
        EXPECT_EQ(result, row.line ? -1 : 0) << log;
        EXPECT_TRUE(!row.line || hasErrorLine(log, "create_texture_and_fbo", row.line)) << log;
    }
    p.bld_height = 720;
    std::string log = stdoutOf([&] { result = engine->create_texture_and_fbo(nullptr, 0, 0, &outFbo); });
    EXPECT_TRUE(hasErrorLine(log, "create_texture_and_fbo", "input fd_array is NULL!"));

    // Descriptor 0 is refused with its index, after the ones before it were handled.
    p.camera_num = 2;
    EXPECT_TRUE(hasErrorLine(frameLog({77, 0, 78}), "create_texture_and_fbo", "input fd_array[1]=0 is illegal!"));
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(engine->cache_input_fd[11] == 77u && engine->cache_input_fd[12] == 0u);
}

TEST_F(RemapImport, TableIsFlushedOnceTheLastSlotIsUsed)
{
    for (int f = 0; f < 33; ++f) ASSERT_EQ(frame({100 + 3 * f, 101 + 3 * f, 102 + 3 * f}), 0);  // slots 0-98
    const GLuint lastFbo = outFbo, lastCamera1 = engine->textureID[1];

    // One slot left: the first new descriptor takes it, the others keep last frame's names.
    ASSERT_EQ(frame({500, 501, 502}), 0);
    EXPECT_EQ(engine->cache_input_fd[99], 500u);
    EXPECT_EQ(engine->textureID[1], lastCamera1);
    EXPECT_EQ(outFbo, lastFbo);

    // Next frame: everything is deleted and imported anew from slot 0.
    ASSERT_EQ(frame({100, 101, 102}), 0);
    EXPECT_EQ(std::vector<GLuint>(engine->cache_input_fd, engine->cache_input_fd + 4),
              (std::vector<GLuint>{100, 101, 102, 0}));
    EXPECT_EQ(engine->cache_input_fd[99], 0u);
    EXPECT_EQ(fakegl::liveObjects("texture"), 3u);
    EXPECT_EQ(fakegl::liveObjects("framebuffer"), 1u);
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
}

TEST_F(RemapImport, FailedImportsAreRecordedAndTheFrameGoesOn)
{
    // The importers' all-bits-set failure passes the frame's test for 0.
    fakegl::inject().nullImageFrom = 1;
    std::string log = frameLog({11, 12, 20});
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(hasErrorLine(log, "create_egl_texture", "avs-debug eglCreateImageKHR NULL! stride=1008,height=720,fd=11\n"));
    EXPECT_TRUE(hasErrorLine(log, "create_fbo_output", "avs-debug eglCreateImageKHR NULL! stride=2048,height=720,fd=20\n"));
    EXPECT_EQ(engine->textureID[0], 0xFFFFFFFFu);
    EXPECT_EQ(outFbo, 0xFFFFFFFFu);

    engine->destroy_texture_and_fbo();
    fakegl::reset();
    fakegl::inject().framebufferStatus = GL_FRAMEBUFFER_INCOMPLETE_ATTACHMENT;
    log = frameLog({11, 12, 20});
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(hasErrorLine(log, "create_fbo_output", "zq_debug create fbo failed!\n"));
    EXPECT_EQ(slot(2).fbo_id, 0xFFFFFFFFu);
    EXPECT_EQ(fakegl::liveObjects("image"), 1u);  // the output's image is left as it is
}

}  // namespace
