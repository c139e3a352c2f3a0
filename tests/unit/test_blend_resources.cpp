// Pyramid and alpha resources of the blend engine: level geometry, alpha sources, tear-down.
#include "blend_engine_support.h"

#include <unistd.h>

#include <cstring>

#include "calibration_dir.h"

namespace blend_test {
namespace {

using namespace zqgfx_gpu_avs;
using Access = BlendEngineTestAccess;

TEST(BlendGeometry, OnlyFullSizeU8LevelsAreImportedAndReadsRunToAlignedRowEnds)
{
    EXPECT_TRUE(alphaLevelImported(FUSE_GPU_ALPHA_U8, 100) && alphaLevelImported(FUSE_GPU_ALPHA_U8, 64));
    EXPECT_FALSE(alphaLevelImported(FUSE_GPU_ALPHA_U8, 50) || alphaLevelImported(FUSE_GPU_ALPHA_FLOAT, 100));
    // Rows start on 4-byte boundaries; the last row ends at the width.
    EXPECT_EQ(unpackAlignedReadBytes(50, 20), 52u * 19 + 50);
    EXPECT_EQ(unpackAlignedReadBytes(0, 20), 0u);
    // The last level of a 100 x 40 x 3 U8 map is read past the map's 5250 bytes.
    EXPECT_EQ(alphaReadExtentBytes(100, 40, 40, 3, FUSE_GPU_ALPHA_U8), 5000u + 28 * 9 + 25);
    EXPECT_EQ(alphaReadExtentBytes(100, 40, 40, 3, FUSE_GPU_ALPHA_FLOAT), 5250u * 4);
    // Textures as high as the panorama read more rows than a lower map holds.
    EXPECT_EQ(alphaReadExtentBytes(100, 20, 40, 1, FUSE_GPU_ALPHA_FLOAT), 4000u * 4);
}

class BlendResources : public BlendTest {
protected:
    // Alpha map of the single camera's seam (with itself).
    void writeAlpha(const std::vector<float>& values)
    {
        calibration.write("zq_ps_gpu_alpha00.bin", values.data(), values.size() * sizeof(float));
    }
    int init(multibandResource& layout, const std::vector<void*>& records, std::string* out = nullptr)
    {
        layout.meshFilePath = const_cast<char*>(dir.c_str());
        layout.useMeshBufAddress = !records.empty();
        layout.meshAlphaDrmBufMsgArray = const_cast<void**>(records.data());
        flags.assign(layout.cameraNum, 0);
        for (int c = 0; c < layout.cameraNum; ++c) flags[c] = layout.multi_band_num[c] > 0;
        engine = makeEngine();
        int ret = 0;
        std::string text = stdoutOf([&] { ret = engine->initMultibandBlend(&layout, flags.data()); });
        if (out) *out = text;
        return ret;
    }
    static std::vector<fakegl::Call> uploadsOf(GLint internalFormat)
    {
        std::vector<fakegl::Call> found;
        for (const fakegl::Call& c : fakegl::callsTo("glTexImage2D"))
            if (c.args[2] == internalFormat) found.push_back(c);
        return found;
    }

    entry_test::TempCalibrationDir calibration;
    const std::string dir = calibration.path();
    EnginePtr engine;
    std::vector<int> flags;
};

TEST_F(BlendResources, OneLevelSeamHasNoColourLevelAndOneAlphaTextureFromItsFile)
{
    multibandResource layout = makeLayout(1, {0}, 30, 8, 1);
    writeAlpha(std::vector<float>(30 * 8, 0.25f));
    ASSERT_EQ(init(layout, {}), 0);
    EXPECT_EQ(fakegl::countCalls("glGenFramebuffers"), 0u);
    std::vector<fakegl::Call> uploads = uploadsOf(GL_R32F);
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(std::vector<int64_t>(uploads[0].args.begin() + 3, uploads[0].args.begin() + 8),
              (std::vector<int64_t>{30, 8, 0, GL_RED, GL_FLOAT}));
}

TEST_F(BlendResources, TwoLevelU8SeamFromCallerMemory)
{
    // Level 0 (100 wide) is imported from the caller's dma-buf; level 1 (50 wide) is uploaded, and
    // its rows read at a 4-byte stride run past the map: they come from a library-owned copy.
    multibandResource layout = makeLayout(2, {1}, 100, 40, 2, FUSE_GPU_ALPHA_U8);
    const int offset = 7;
    std::vector<uint8_t> caller(offset + 100 * 40 + 50 * 20);
    for (size_t i = 0; i < caller.size(); ++i) caller[i] = static_cast<uint8_t>(i * 7 + 1);
    PSR_DRM_BUF_MSG_S msg{caller.data(), 33, offset, static_cast<int64_t>(caller.size())};
    ASSERT_EQ(init(layout, {&msg}), 0);

    // Colour level 1 of both sides and of the result: 50 x 20 render targets.
    for (const fakegl::Call& c : uploadsOf(GL_RGB)) EXPECT_EQ(c.args[3] * 1000 + c.args[4], 50020);
    EXPECT_EQ(fakegl::liveObjects("framebuffer"), 3u);
    std::vector<fakegl::Call> images = fakegl::callsTo("eglCreateImageKHR");
    ASSERT_EQ(images.size(), 1u);
    EXPECT_EQ(fakegl::attribValue(images[0], EGL_DMA_BUF_PLANE0_OFFSET_EXT), offset);
    EXPECT_EQ(fakegl::attribValue(images[0], EGL_DMA_BUF_PLANE0_PITCH_EXT), 100);

    const std::vector<Access::PaddedAlphaLevel>& padded = Access::padded(*engine);
    ASSERT_EQ(padded.size(), 1u);
    const uint8_t* level1 = caller.data() + offset + 4000;
    EXPECT_EQ(padded[0].source, level1);
    ASSERT_EQ(uploadsOf(GL_R8).size(), 1u);
    const uint8_t* sent = reinterpret_cast<const uint8_t*>(uploadsOf(GL_R8)[0].args[8]);
    ASSERT_EQ(sent, padded[0].bytes.data());
    ASSERT_GE(padded[0].bytes.size(), unpackAlignedReadBytes(50, 20));
    EXPECT_EQ(memcmp(sent, level1, 1000), 0);
    for (size_t i = 1000; i < padded[0].bytes.size(); ++i) ASSERT_EQ(sent[i], 0) << i;

    // A refresh re-reads the caller's bytes into the same copy.
    caller[offset + 4000] = 0xEE;
    ASSERT_EQ(engine->updateMultibandAlpha(flags.data()), 0);
    ASSERT_EQ(uploadsOf(GL_R8).size(), 2u);
    EXPECT_EQ(reinterpret_cast<const uint8_t*>(uploadsOf(GL_R8)[1].args[8]), padded[0].bytes.data());
    EXPECT_EQ(padded[0].bytes[0], 0xEE);
}

TEST_F(BlendResources, AlphaSourcesThatWouldBeReadPastTheirEndAreRefused)
{
    writeAlpha(std::vector<float>(30 * 8 - 1, 1.0f));
    std::vector<float> caller(30 * 16, 1.0f);
    PSR_DRM_BUF_MSG_S small{caller.data(), 5, 0, 30 * 8 * 4 - 1}, exact{caller.data(), 5, 0, 30 * 8 * 4},
        noAddress{nullptr, 5, 0, 30 * 8 * 4}, unsized{caller.data(), 5, 0, 0};
    struct Case {
        std::vector<void*> records;  // none: the alpha file
        int panoramaHeight;
        std::string message;
    };
    const Case cases[] = {
        {{}, 8, "avs-debug alpha file too short layername:" + dir + "zq_ps_gpu_alpha00.bin elements=239 expected=240"},
        {{nullptr}, 8, "meshAlphaDrmBufMsgArray[0] is NULL!"},
        {{&noAddress}, 8, "meshAlphaBufArray[0]=NULL!"},
        {{&small}, 8, "meshAlphaBufArray[0] mem_size=959 too small: mem_offset=0 + 240 alpha elements of 4 bytes!"},
        // A panorama twice as high as the map: the texture would read 16 rows of 8.
        {{&exact}, 16, "alpha[0,0] 30x16 floats lie past the caller's buffer!"},
        // mem_size 0 is not given: the map alone is trusted, and nothing past it read.
        {{&unsized}, 8, ""},
        {{&unsized}, 16, "alpha[0,0] 30x16 floats lie past the caller's buffer!"},
    };
    for (const Case& c : cases) {
        fakegl::reset();
        multibandResource layout = makeLayout(1, {0}, 30, 8, 1);
        layout.bld_height = c.panoramaHeight;
        std::string out;
        const bool refused = !c.message.empty();
        EXPECT_EQ(init(layout, c.records, &out), refused ? -1 : 0) << c.message;
        EXPECT_TRUE(refused ? hasErrorLine(out, c.message) : out.find("FAILED") == std::string::npos) << out;
        EXPECT_EQ(uploadsOf(GL_R32F).empty(), refused) << c.message;
    }
}

// Level 2 of the colour pyramids and U8 maps read from files live in DRM buffers.
TEST_F(BlendResources, SharedBufferAllocationFailuresFailInit)
{
    if (access("/dev/dri/card0", F_OK) == 0) GTEST_SKIP() << "a DRM device is present";
    multibandResource threeLevels = makeLayout(1, {0}, 64, 32, 3);
    std::string out;
    EXPECT_EQ(init(threeLevels, {}, &out), -1);
    EXPECT_TRUE(hasErrorLine(out, "avs-debug avs_alloc_buf buf failed!")) << out;
    multibandResource u8File = makeLayout(1, {0}, 64, 32, 1, FUSE_GPU_ALPHA_U8);
    EXPECT_EQ(init(u8File, {}, &out), -1);
    EXPECT_TRUE(hasErrorLine(out, "avs-debug dma_buf_alloc buf failed!")) << out;
}

TEST_F(BlendResources, DeinitReleasesEveryPyramidAndEveryAlphaLevel)
{
    // Four cameras, every seam blended with two levels; float alpha from caller memory.
    multibandResource layout = makeLayout(4, {0, 1, 2, 3}, 20, 8, 2);
    std::vector<float> alpha(20 * 8 + 10 * 4, 0.5f);
    PSR_DRM_BUF_MSG_S msg{alpha.data(), 9, 0, static_cast<int64_t>(alpha.size() * sizeof(float))};
    ASSERT_EQ(init(layout, {&msg, &msg, &msg, &msg}), 0);
    ASSERT_EQ(fakegl::liveObjects("framebuffer"), 12u);
    ASSERT_EQ(fakegl::liveObjects("texture"), 12u + 8u);

    std::string out = stdoutOf([&] { engine->deinitMultibandBlend(flags.data()); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(fakegl::doubleDeletes(), 0u);
    EXPECT_EQ(fakegl::liveObjects("texture"), 0u);
    EXPECT_EQ(fakegl::liveObjects("framebuffer"), 0u);
}

}  // namespace
}  // namespace blend_test
