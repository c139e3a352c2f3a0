// The blend engine's per-frame passes over hand-made pyramids, against the fake driver.
#include "blend_engine_support.h"

#include <map>
#include <tuple>

namespace blend_test {
namespace {

using namespace zqgfx_gpu_avs;
using Access = BlendEngineTestAccess;

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
    void install(multibandResource& r)
    {
        Access::adopt(*engine, &r);
        std::vector<std::vector<drmSharedFramebuffer*>*> pyramids = Access::pyramids(*engine);
        for (int c = 0; c < r.cameraNum; ++c) {
            for (int p = 0; p < 4 && r.multi_band_num[c] > 0; ++p) {
                storage.emplace_back();
                for (int l = 0; l < r.multi_band_num[c]; ++l)
                    storage.back().push_back({5000 + levelTexture(p + 1, c, l), levelTexture(p + 1, c, l), nullptr, -1, 24, 0, 0});
                (*pyramids[p])[c] = storage.back().data();
            }
        }
    }
    void TearDown() override
    {
        for (auto* p : Access::pyramids(*engine)) p->assign(p->size(), nullptr);  // the test's own storage
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

    EnginePtr engine = makeEngine();
    std::vector<std::vector<drmSharedFramebuffer>> storage;
};

TEST_F(BlendPasses, UnflaggedCamerasDoNoWorkAndOneLevelSeamsMixStraightIntoTheOutput)
{
    multibandResource r = makeLayout(3, {0, 2}, 40, 16, 1);
    install(r);
    std::vector<int> none = flagsOf(3, {}), flags = flagsOf(3, {2});
    EXPECT_EQ(engine->glesMultibandDrawGauss(none.data()), 0);
    EXPECT_EQ(engine->glesMultibandBlend(kOutFbo, none.data()), 0);
    EXPECT_TRUE(fakegl::calls().empty());

    ASSERT_EQ(engine->glesMultibandDrawGauss(flags.data()), 0);
    ASSERT_EQ(engine->glesMultibandBlend(kOutFbo, flags.data()), 0);
    std::vector<Draw> d = draws();
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(std::make_pair(d[0].program, d[0].framebuffer), std::make_pair(kLowest, int64_t{kOutFbo}));
    EXPECT_EQ(d[0].viewport, (std::vector<int64_t>{300, 0, 40, 16}));
}

TEST_F(BlendPasses, GaussianPassReducesEachSideFromTheNeighbouringOverlapBlocks)
{
    // Two cameras with two overlap blocks each; camera 1's seam wraps to camera 0's first block.
    multibandResource r = makeLayout(2, {0, 1}, 101, 40, 3, FUSE_GPU_ALPHA_FLOAT, 2);
    install(r);
    std::vector<int> flags = flagsOf(2, {0, 1});
    ASSERT_EQ(engine->glesMultibandDrawGauss(flags.data()), 0);

    std::vector<Draw> d = draws();
    ASSERT_EQ(d.size(), 8u);  // per seam, per side, levels 1 and 2
    EXPECT_EQ(fakegl::countCalls("glClear"), d.size());  // each level cleared before its draw [kept:K3]
    for (int c = 0; c < 2; ++c) {
        GLuint base[] = {overlapTexture(c, 1), overlapTexture(1 - c, 0)};
        for (int side = 0; side < 2; ++side) {
            for (int l = 1; l <= 2; ++l) {
                const Draw& draw = d[static_cast<size_t>(c * 4 + side * 2 + l - 1)];
                EXPECT_EQ(draw.units.at(0), l == 1 ? base[side] : levelTexture(side + 1, c, 1)) << c << side << l;
                EXPECT_EQ(draw.framebuffer, 5000 + levelTexture(side + 1, c, l));
                EXPECT_EQ(draw.viewport, (std::vector<int64_t>{0, 0, l == 1 ? 50 : 25, l == 1 ? 20 : 10}));
                EXPECT_EQ(draw.program, kCopy);
            }
        }
    }

    // A failing draw fails the pass, once both sides are drawn.
    fakegl::reset();
    fakegl::failCall("glDrawArrays", GL_INVALID_OPERATION);
    std::string out = stdoutOf([&] { EXPECT_EQ(engine->glesMultibandDrawGauss(flags.data()), -1); });
    EXPECT_EQ(fakegl::countCalls("glDrawArrays"), 3u);  // side A stops at level 1, side B draws both
    EXPECT_TRUE(hasErrorLine(out, "draw_gauss_multi_texture failed!")) << out;
}

TEST_F(BlendPasses, BlendPassCollapsesFromTheCoarsestLevelIntoTheSeamRectangle)
{
    multibandResource r = makeLayout(2, {1}, 101, 40, 4);
    r.resize_startx[1] = 30, r.resize_width[1] = 60, r.resize_height[1] = 25;  // after a resize
    install(r);
    std::vector<int> flags = flagsOf(2, {1});
    ASSERT_EQ(engine->glesMultibandBlend(kOutFbo, flags.data()), 0);

    std::vector<Draw> d = draws();
    ASSERT_EQ(d.size(), 4u);
    for (int l = 3; l >= 0; --l) {
        const Draw& draw = d[static_cast<size_t>(3 - l)];
        EXPECT_EQ(draw.program, l == 3 ? kLowest : l == 0 ? kBlendYUV : kBlend) << l;
        EXPECT_EQ(draw.arrayBuffer, 0);
        EXPECT_EQ(draw.framebuffer, l == 0 ? kOutFbo : 5000 + levelTexture(3, 1, l));
        std::vector<int64_t> viewport = {0, 0, pyramidLevelSize(101, l), pyramidLevelSize(40, l)};
        EXPECT_EQ(draw.viewport, l == 0 ? std::vector<int64_t>({30, 0, 60, 25}) : viewport);
        // Unit by unit: sampler, pyramid, level above this one.
        std::vector<std::tuple<const char*, int, int>> inputs = {{"texGaussA", 1, 0}, {"texGaussB", 2, 0}, {"texAlpha", 4, 0}};
        if (l < 3)
            inputs = {{"texGaussA_n0", 1, 0}, {"texGaussB_n0", 2, 0}, {"texGaussA_n1", 1, 1},
                      {"texGaussB_n1", 2, 1}, {"texResult_n1", 3, 1}, {"texAlpha", 4, 0}};
        for (size_t u = 0; u < inputs.size(); ++u) {
            auto [sampler, pyramid, up] = inputs[u];
            EXPECT_EQ(draw.units.at(static_cast<int64_t>(u)), levelTexture(pyramid, 1, l + up)) << l << " unit " << u;
            EXPECT_EQ(draw.uniforms.at(glGetUniformLocation(0, sampler)), static_cast<int64_t>(u)) << l;
        }
    }
}

TEST_F(BlendPasses, MissingTextureNamesStopThePassWithTheirMessages)
{
    struct Case {
        int pyramid, level;  // 0 A, 1 B, 2 result, 3 alpha; level 2 is the coarsest of three
        const char* message;
    };
    const Case cases[] = {{0, 2, "bind Fbo failed!"}, {3, 2, "bind alpha texture failed!"},
                          {3, 1, "bind alpha texture failed!"}, {2, 1, "bind texture failed!"}, {0, 0, "bind fbo failed!"}};
    for (const Case& c : cases) {
        fakegl::reset();
        multibandResource r = makeLayout(2, {0}, 64, 32, 3);
        install(r);
        (*Access::pyramids(*engine)[c.pyramid])[0][c.level].texture_id = 0;
        std::vector<int> flags = flagsOf(2, {0});
        std::string out = stdoutOf([&] { EXPECT_EQ(engine->glesMultibandBlend(kOutFbo, flags.data()), -1); });
        EXPECT_TRUE(hasErrorLine(out, c.message)) << c.pyramid << "/" << c.level << "\n" << out;
    }
}

}  // namespace
}  // namespace blend_test
