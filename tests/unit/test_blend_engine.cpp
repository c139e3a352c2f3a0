// The blend engine against the fake driver: its programs, pyramid and alpha resources, and the
// per-frame passes over hand-made pyramids.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <tuple>

#include "blend_engine_support.h"
#include "calibration_dir.h"
#include "fakegl/fakegl.h"
#include "unit/engine_log_support.h"

namespace {

using namespace zqgfx_gpu_avs;
using Access = BlendEngineTestAccess;
using engine_test::hasErrorLine;
using engine_test::stdoutOf;

// Also frees the level arrays the engine keeps on purpose (the last camera's, a failed init's),
// so that the leak checker sees only what the library itself loses.
struct EngineDeleter {
    void operator()(zqglMultibandBlend* engine) const
    {
        for (auto* pyramid : Access::pyramids(*engine))
            for (drmSharedFramebuffer*& levels : *pyramid) free(levels), levels = nullptr;
        engine->~zqglMultibandBlend();
        free(engine);
    }
};
using EnginePtr = std::unique_ptr<zqglMultibandBlend, EngineDeleter>;

// Built as its owner builds it: zero-filled memory, placement new.
EnginePtr makeEngine() { return EnginePtr(new (calloc(1, sizeof(zqglMultibandBlend))) zqglMultibandBlend); }

// Overlap block b of camera c is drawn into framebuffer 200 + 10c + b, texture 100 + 10c + b.
GLuint overlapTexture(int camera, int block) { return static_cast<GLuint>(100 + 10 * camera + block); }

// `cameras` cameras with `overlaps` overlap blocks each; each camera in `blended` has a seam of
// width x height (also the panorama height) with `levels` levels, starting at x = 100 (c + 1).
multibandResource makeLayout(int cameras, std::vector<int> blended, int width, int height, int levels,
                             int alphaType = FUSE_GPU_ALPHA_FLOAT, int overlaps = 1)
{
    multibandResource r{};
    r.cameraNum = cameras;
    r.bld_width = 1000;
    r.bld_height = height;
    r.avsAlphaType = alphaType;
    r.overlap_num.assign(cameras, overlaps);
    r.overlap_remap_fbo.resize(cameras);
    for (int c = 0; c < cameras; ++c)
        for (int b = 0; b < overlaps; ++b)
            r.overlap_remap_fbo[c].push_back({overlapTexture(c, b) + 100, overlapTexture(c, b), nullptr, 0, 0, 0, 0});
    for (auto* v : {&r.multi_band_num, &r.output_width, &r.output_height, &r.output_startx, &r.resize_width,
                    &r.resize_height, &r.resize_startx})
        v->assign(cameras, 0);
    for (int c : blended) {
        r.multi_band_num[c] = levels;
        r.output_width[c] = r.resize_width[c] = width;
        r.output_height[c] = r.resize_height[c] = height;
        r.output_startx[c] = r.resize_startx[c] = 100 * (c + 1);
    }
    return r;
}

struct BlendTest : ::testing::Test {
    void SetUp() override { fakegl::reset(); }
};

// ---- programs and resources, made by init ----------------------------------------------------

class BlendResources : public BlendTest {
protected:
    // `record`: the seam's alpha map in caller memory; null: its alpha file.
    int init(multibandResource& layout, PSR_DRM_BUF_MSG_S* record, std::string* out = nullptr)
    {
        alphaRecord = record;
        layout.meshFilePath = const_cast<char*>(dir.c_str());
        layout.useMeshBufAddress = record != nullptr;
        layout.meshAlphaDrmBufMsgArray = &alphaRecord;
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
    void* alphaRecord = nullptr;
};

TEST_F(BlendResources, TwoLevelU8SeamFromCallerMemory)
{
    // Level 0 (100 wide) is imported from the caller's dma-buf; level 1 (50 wide) is uploaded, and
    // its rows read at a 4-byte stride run past the map: they come from a library-owned copy.
    multibandResource layout = makeLayout(2, {1}, 100, 40, 2, FUSE_GPU_ALPHA_U8);
    const int offset = 7;
    std::vector<uint8_t> caller(offset + 100 * 40 + 50 * 20);
    for (size_t i = 0; i < caller.size(); ++i) caller[i] = static_cast<uint8_t>(i * 7 + 1);
    PSR_DRM_BUF_MSG_S msg{caller.data(), 33, offset, static_cast<int64_t>(caller.size())};
    ASSERT_EQ(init(layout, &msg), 0);

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
    ASSERT_GE(padded[0].bytes.size(), 52u * 19 + 50);  // the last row ends at the width
    EXPECT_EQ(memcmp(sent, level1, 1000), 0);
    for (size_t i = 1000; i < padded[0].bytes.size(); ++i) ASSERT_EQ(sent[i], 0) << i;

    // Each of the four programs has both inputs bound, at 0 and 1, before it is linked.
    std::map<int64_t, std::map<std::string, int64_t>> bound;
    for (const fakegl::Call& c : fakegl::calls()) {
        if (c.fn == "glBindAttribLocation") bound[c.args[0]][c.text] = c.args[1];
        if (c.fn == "glLinkProgram") {
            EXPECT_EQ(bound[c.args[0]], (std::map<std::string, int64_t>{{"texCoords", 1}, {"vPosition", 0}}));
        }
    }
    EXPECT_EQ(fakegl::countCalls("glLinkProgram"), 4u);
}

// The alpha records' own refusals are shown at the entry points; here what the textures would
// read beyond the map. A one-level seam makes no colour level and uploads its map as high as the
// panorama.
TEST_F(BlendResources, InitFailsWithItsReasonWhenAProgramABufferOrTheAlphaBytesCannotBeHad)
{
    std::vector<float> caller(30 * 16, 1.0f);
    PSR_DRM_BUF_MSG_S small{caller.data(), 5, 0, 30 * 8 * 4 - 1}, exact{caller.data(), 5, 0, 30 * 8 * 4},
        unsized{caller.data(), 5, 0, 0};
    struct Case {
        int failCompileAt, failLinkAt, levels, alphaType;
        PSR_DRM_BUF_MSG_S* record;  // null: the alpha file
        int panoramaHeight;
        size_t programsLeft;  // kept until de-init
        std::string message;  // the build log on standard error, or an error line; none: init succeeds
    };
    constexpr int kFloat = FUSE_GPU_ALPHA_FLOAT;
    const Case cases[] = {
        // The fourth compile is the lowest program's fragment text, the fourth link blendYUV's.
        {4, 0, 1, kFloat, &exact, 8, 1, "Could not compile shader 35632:\nbad\nCould not set up graphics.\n"},
        {0, 4, 1, kFloat, &exact, 8, 3, "Could not link program:\nbad\nCould not set up graphics.\n"},
        // Without a DRM device, level 2 of the colour pyramids and U8 maps read from files get no buffer.
        {0, 0, 3, kFloat, nullptr, 8, 4, "avs-debug avs_alloc_buf buf failed!"},
        {0, 0, 1, FUSE_GPU_ALPHA_U8, nullptr, 8, 4, "avs-debug dma_buf_alloc buf failed!"},
        {0, 0, 1, kFloat, &small, 8, 4,
         "meshAlphaBufArray[0] mem_size=959 too small: mem_offset=0 + 240 alpha elements of 4 bytes!"},
        {0, 0, 1, kFloat, &exact, 8, 4, ""},
        // A panorama twice as high as the map: the texture would read 16 rows of 8.
        {0, 0, 1, kFloat, &exact, 16, 4, "alpha[0,0] 30x16 floats lie past the caller's buffer!"},
        // mem_size 0 is not given: the map alone is trusted, and nothing past it read.
        {0, 0, 1, kFloat, &unsized, 8, 4, ""},
        {0, 0, 1, kFloat, &unsized, 16, 4, "alpha[0,0] 30x16 floats lie past the caller's buffer!"},
    };
    const bool drmDevice = access("/dev/dri/card0", F_OK) == 0;
    for (const Case& c : cases) {
        if (drmDevice && c.record == nullptr) continue;  // the buffers would be made
        fakegl::reset();
        fakegl::inject().failCompileAt = c.failCompileAt;
        fakegl::inject().failLinkAt = c.failLinkAt;
        fakegl::inject().compileLog = fakegl::inject().linkLog = "bad";
        multibandResource layout = makeLayout(1, {0}, 30, 8, c.levels, c.alphaType);
        layout.bld_height = c.panoramaHeight;
        const bool refused = !c.message.empty();
        std::string out;
        testing::internal::CaptureStderr();
        EXPECT_EQ(init(layout, c.record, &out), refused ? -1 : 0) << c.message;
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(refused ? hasErrorLine(out, c.message) || err.find(c.message) != std::string::npos
                            : out.find("FAILED") == std::string::npos)
            << c.message << "\n" << out << err;
        EXPECT_EQ(fakegl::liveObjects("program"), c.programsLeft) << c.message;
        const std::vector<fakegl::Call> uploads = uploadsOf(GL_R32F);
        ASSERT_EQ(uploads.size(), refused ? 0u : 1u) << c.message;
        if (!refused) {
            EXPECT_EQ(fakegl::countCalls("glGenFramebuffers"), 0u);
            EXPECT_EQ(std::vector<int64_t>(uploads[0].args.begin() + 3, uploads[0].args.begin() + 8),
                      (std::vector<int64_t>{30, 8, 0, GL_RED, GL_FLOAT}));
        }
    }
}

// ---- the per-frame passes --------------------------------------------------------------------

constexpr int64_t kCopy = 11, kLowest = 12, kBlend = 13, kBlendYUV = 14;
constexpr GLuint kOutFbo = 77;

// Level l of camera c in pyramid p (1 A, 2 B, 3 result, 4 alpha): texture 1000 p + 10 c + l,
// framebuffer 5000 + that.
GLuint levelTexture(int pyramid, int camera, int level) { return static_cast<GLuint>(1000 * pyramid + 10 * camera + level); }

// The state the fake saw at one glDrawArrays.
struct Draw {
    std::map<int64_t, int64_t> units;     // unit -> texture
    std::map<int64_t, int64_t> uniforms;  // location -> value, since the program was chosen
    int64_t framebuffer = -1, program = -1, arrayBuffer = -1;
    std::vector<int64_t> viewport;
};

class BlendPasses : public BlendTest {
protected:
    // A fresh engine with the layout's pyramids, freed with it.
    void install(multibandResource& r)
    {
        engine = makeEngine();
        Access::adopt(*engine, &r);
        std::vector<std::vector<drmSharedFramebuffer*>*> pyramids = Access::pyramids(*engine);
        for (int c = 0; c < r.cameraNum; ++c) {
            for (int p = 0; p < 4 && r.multi_band_num[c] > 0; ++p) {
                auto* levels =
                    static_cast<drmSharedFramebuffer*>(calloc(r.multi_band_num[c], sizeof(drmSharedFramebuffer)));
                for (int l = 0; l < r.multi_band_num[c]; ++l)
                    levels[l] = {5000 + levelTexture(p + 1, c, l), levelTexture(p + 1, c, l), nullptr, -1, 24, 0, 0};
                (*pyramids[p])[c] = levels;
            }
        }
    }
    static std::vector<Draw> draws()
    {
        std::vector<Draw> found;
        Draw s;
        int64_t unit = 0;
        for (const fakegl::Call& c : fakegl::calls()) {
            if (c.fn == "glActiveTexture") unit = c.args[0] - GL_TEXTURE0;
            if (c.fn == "glBindTexture") s.units[unit] = c.args[1];
            if (c.fn == "glBindFramebuffer") s.framebuffer = c.args[1];
            if (c.fn == "glUseProgram") s.program = c.args[0], s.uniforms.clear();
            if (c.fn == "glBindBuffer" && c.args[0] == GL_ARRAY_BUFFER) s.arrayBuffer = c.args[1];
            if (c.fn == "glViewport") s.viewport = c.args;
            if (c.fn == "glUniform1i") s.uniforms[c.args[0]] = c.args[1];
            if (c.fn == "glDrawArrays") found.push_back(s);
        }
        return found;
    }

    EnginePtr engine;
};

// The Gaussian pass reduces each side of a seam from its overlap block; the blend pass collapses
// the pyramids from the coarsest level into the seam's rectangle of the output.
TEST_F(BlendPasses, PyramidsAreReducedFromTheNeighbouringOverlapBlocksAndCollapsedIntoTheSeam)
{
    // Camera 0 is not flagged; camera 1 has four levels and was resized; camera 2 has one level,
    // mixed straight into the output, and its seam wraps to camera 0.
    multibandResource r = makeLayout(3, {0, 1, 2}, 101, 40, 4, FUSE_GPU_ALPHA_FLOAT, 2);
    r.multi_band_num[2] = 1;
    r.resize_startx[1] = 30, r.resize_width[1] = 60, r.resize_height[1] = 25;
    install(r);
    std::vector<int> none(3, 0), flags = {0, 1, 1};
    EXPECT_EQ(engine->glesMultibandDrawGauss(none.data()), 0);
    EXPECT_EQ(engine->glesMultibandBlend(kOutFbo, none.data()), 0);
    EXPECT_TRUE(fakegl::calls().empty());
    ASSERT_EQ(engine->glesMultibandDrawGauss(flags.data()), 0);
    ASSERT_EQ(engine->glesMultibandBlend(kOutFbo, flags.data()), 0);

    // Level 0 of side A is the camera's last overlap block, of side B the next camera's first.
    const std::map<int, std::pair<GLuint, GLuint>> seamBlocks = {{1, {overlapTexture(1, 1), overlapTexture(2, 0)}},
                                                                 {2, {overlapTexture(2, 1), overlapTexture(0, 0)}}};
    auto texture = [&](int pyramid, int camera, int level) -> int64_t {
        if (level > 0 || pyramid > 2) return levelTexture(pyramid, camera, level);
        return pyramid == 1 ? seamBlocks.at(camera).first : seamBlocks.at(camera).second;
    };
    const std::map<int, std::vector<int64_t>> seamRectangle = {{1, {30, 0, 60, 25}}, {2, {300, 0, 101, 40}}};
    const int64_t widths[] = {101, 50, 25, 12}, heights[] = {40, 20, 10, 5};
    // Blend pass or not, camera, pyramid drawn into (1 A, 2 B, 3 result), level.
    const std::tuple<bool, int, int, int> drawn[] = {
        {false, 1, 1, 1}, {false, 1, 1, 2}, {false, 1, 1, 3}, {false, 1, 2, 1}, {false, 1, 2, 2}, {false, 1, 2, 3},
        {true, 1, 3, 3},  {true, 1, 3, 2},  {true, 1, 3, 1},  {true, 1, 3, 0},  {true, 2, 3, 0}};
    std::vector<Draw> d = draws();
    ASSERT_EQ(d.size(), std::size(drawn));
    EXPECT_EQ(fakegl::countCalls("glClear"), 9u);  // every level but the output cleared before its draw [kept:K3]
    for (size_t i = 0; i < d.size(); ++i) {
        const auto [blend, camera, pyramid, l] = drawn[i];
        const Draw& draw = d[i];
        const bool coarsest = l == r.multi_band_num[camera] - 1;
        EXPECT_EQ(draw.program, !blend ? kCopy : coarsest ? kLowest : l == 0 ? kBlendYUV : kBlend) << i;
        EXPECT_EQ(draw.arrayBuffer, 0);
        EXPECT_EQ(draw.framebuffer, l == 0 ? kOutFbo : 5000 + levelTexture(pyramid, camera, l)) << i;
        const std::vector<int64_t> levelRectangle = {0, 0, widths[l], heights[l]};
        EXPECT_EQ(draw.viewport, l == 0 ? seamRectangle.at(camera) : levelRectangle) << i;
        // Unit by unit: sampler, pyramid, level relative to the one drawn.
        std::vector<std::tuple<const char*, int, int>> inputs = {{"textureSamp", pyramid, -1}};
        if (blend && coarsest) inputs = {{"texGaussA", 1, 0}, {"texGaussB", 2, 0}, {"texAlpha", 4, 0}};
        if (blend && !coarsest)
            inputs = {{"texGaussA_n0", 1, 0}, {"texGaussB_n0", 2, 0}, {"texGaussA_n1", 1, 1},
                      {"texGaussB_n1", 2, 1}, {"texResult_n1", 3, 1}, {"texAlpha", 4, 0}};
        for (size_t u = 0; u < inputs.size(); ++u) {
            auto [sampler, input, up] = inputs[u];
            EXPECT_EQ(draw.units.at(static_cast<int64_t>(u)), texture(input, camera, l + up)) << i << " unit " << u;
            EXPECT_EQ(draw.uniforms.at(glGetUniformLocation(0, sampler)), static_cast<int64_t>(u)) << i;
        }
    }
}

TEST_F(BlendPasses, FailuresStopThePassWithTheirMessages)
{
    struct Case {
        bool gauss;
        int pyramid, level;       // texture name cleared (0 A, 1 B, 2 result, 3 alpha), or -1
        const char* failingCall;  // raises GL_INVALID_OPERATION at its next call, or ""
        size_t drawCalls;         // the failing one included
        const char* message;
    };
    // Three levels, 2 the coarsest. A failed Gaussian draw stops its side; the other side is drawn.
    const Case cases[] = {
        {true, -1, 0, "glDrawArrays", 3, "draw_gauss_multi_texture failed!"},
        {false, 0, 2, "", 0, "bind Fbo failed!"},
        {false, 3, 2, "", 0, "bind alpha texture failed!"},
        {false, 3, 1, "", 1, "bind alpha texture failed!"},
        {false, 2, 1, "", 2, "bind texture failed!"},
        {false, 0, 0, "", 2, "bind fbo failed!"},
    };
    for (const Case& c : cases) {
        fakegl::reset();
        multibandResource r = makeLayout(2, {0}, 64, 32, 3);
        install(r);
        if (c.pyramid >= 0) (*Access::pyramids(*engine)[c.pyramid])[0][c.level].texture_id = 0;
        if (*c.failingCall) fakegl::failCall(c.failingCall, GL_INVALID_OPERATION);
        std::vector<int> flags = {1, 0};
        std::string out = stdoutOf([&] {
            EXPECT_EQ(c.gauss ? engine->glesMultibandDrawGauss(flags.data())
                              : engine->glesMultibandBlend(kOutFbo, flags.data()), -1);
        });
        EXPECT_EQ(fakegl::countCalls("glDrawArrays"), c.drawCalls) << c.message;
        EXPECT_TRUE(hasErrorLine(out, c.message)) << c.pyramid << "/" << c.level << "\n" << out;
    }
}

}  // namespace
