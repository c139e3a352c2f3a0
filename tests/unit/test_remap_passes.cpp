// Remap set-up and passes against the fake driver: overlap framebuffers, the mesh buffer cache and
// its updates, the overlap pass after a resize, and how each pass reports what stops it. Where the
// blocks land is shown in pixels on the real driver.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "unit/remap_engine_support.h"

namespace {

using namespace remap_test;
using namespace zqgfx_gpu_avs;
using Engine = ZQGL_Remap;
using Args = std::vector<std::vector<int64_t>>;

constexpr GLuint kOutputFbo = 77;

Args argsOf(const std::string& fn)
{
    Args out;
    for (const fakegl::Call& call : fakegl::callsTo(fn)) out.push_back(call.args);
    return out;
}

std::vector<int> indices(const std::vector<RemapVboInfo>& cache)
{
    std::vector<int> out;
    for (const RemapVboInfo& entry : cache) out.push_back(entry.mIndex);
    return out;
}

// Two cameras, each with two non-overlap blocks of 33 x 17 nodes and one overlap block of 5 x 4,
// set up. Set-up only reads the nodes, so every block shares one zero mesh.
class RemapEngine : public testing::Test {
protected:
    void SetUp() override
    {
        fakegl::reset();
        addCamera(layout, {{0, 100, 33, 17}, {100, 100, 33, 17}}, {{0, 40, 5, 4}});
        addCamera(layout, {{300, 100, 33, 17}, {400, 100, 33, 17}}, {{0, 48, 5, 4}});
        ASSERT_EQ(setUpEngine(), 0);
    }
    void TearDown() override { engine->deleteCachedVbo(); }

    // glesRemapInit of the layout on a fresh engine, its standard output dropped; then both camera
    // images and the output as if imported.
    int setUpEngine()
    {
        engine->deleteCachedVbo();
        engine = makeEngine();
        int result = -1;
        stdoutOf([&] { result = engine->glesRemapInit(&layout, &resource, meshes, meshes); });
        engine->textureID = {101, 102};
        engine->framebuffer0 = kOutputFbo;
        engine->gProgram = 5;
        engine->gProgramRGB = 6;
        return result;
    }

    int run(int (Engine::*pass)())
    {
        int result = 0;
        testing::internal::CaptureStderr();
        out = stdoutOf([&] { result = (engine.get()->*pass)(); });
        err = testing::internal::GetCapturedStderr();
        return result;
    }

    PSR_INITPARAMS_T layout = makeLayout(600, 240);
    std::vector<float> nodes = std::vector<float>(33 * 17, 0.0f);
    std::vector<std::vector<float*>> meshes = std::vector<std::vector<float*>>(2, std::vector<float*>(3, nodes.data()));
    EnginePtr engine = makeEngine();
    multibandResource resource{};
    std::string out, err;
};

TEST_F(RemapEngine, OneFramebufferPerOverlapBlockAndOneBufferPairPerBlockUnderItsMeshIndex)
{
    EXPECT_EQ(resource.overlap_num, (std::vector<int32_t>{1, 1}));
    const auto images = fakegl::callsTo("glTexImage2D");
    ASSERT_EQ(images.size(), 2u);
    for (int cam = 0; cam < 2; ++cam) {
        const auto& own = engine->overlapFramebuffer[cam].at(0);
        const auto& shared = resource.overlap_remap_fbo.at(cam).at(0);
        EXPECT_TRUE(fakegl::isLive("framebuffer", own.fbo_id) && fakegl::isLive("texture", own.texture_id));
        EXPECT_TRUE(shared.fbo_id == own.fbo_id && shared.texture_id == own.texture_id);
        // As wide as the block, as high as the blend.
        EXPECT_EQ((std::vector<int64_t>{images[cam].args[3], images[cam].args[4]}),
                  (std::vector<int64_t>{layout.overlap_block[cam].dst_width[0], 240}));
    }

    EXPECT_EQ(indices(engine->vertexVboCache), (std::vector<int>{0, 1, 2, 10, 11, 12}));
    // 12 is camera 1's third block: its overlap block, with the overlap mesh size.
    RemapVboInfo* vertex = engine->getVertexVboInfoByIndex(12);
    RemapVboInfo* tex = engine->getTexVertexVboInfoByIndex(12);
    ASSERT_TRUE(vertex && tex);
    EXPECT_TRUE(vertex->meshWidth == 5 && vertex->meshHeight == 4 && vertex->mVboId != tex->mVboId);
    engine->deleteCachedVbo();
    EXPECT_EQ(fakegl::liveObjects("buffer") + fakegl::doubleDeletes(), 0u);
    EXPECT_EQ(engine->vertexVboCache.capacity() + engine->texVertexVboCache.capacity(), 0u);
}

TEST_F(RemapEngine, UpdateReplacesTheBlockAtTheEndOfBothCaches)
{
    const GLuint oldVertex = engine->getVertexVboInfoByIndex(11)->mVboId;
    std::vector<float> mx(8, 1.0f), my(8, 2.0f);
    stdoutOf([&] { EXPECT_EQ(engine->glesRemapUpdateMesh(11, 8, 4, 4, 2, mx.data(), my.data()), 0); });
    EXPECT_EQ(indices(engine->vertexVboCache), (std::vector<int>{0, 1, 2, 10, 12, 11}));
    EXPECT_EQ(indices(engine->texVertexVboCache), indices(engine->vertexVboCache));
    const RemapVboInfo& entry = engine->vertexVboCache.back();
    EXPECT_TRUE(entry.meshWidth == 4 && entry.meshHeight == 2);
    EXPECT_FALSE(fakegl::isLive("buffer", oldVertex));
    // Two floats of four bytes per vertex of the new strip; coordinates from the engine's source size.
    EXPECT_EQ(fakegl::callsTo("glBufferData").back().args[1], 8 * 2 * 4);
    EXPECT_FLOAT_EQ(engine->texVertexVboCache.back().mVertexes[0], 1.5f / 640);
}

TEST_F(RemapEngine, UpdatesThatCannotApplyFailAndSayWhy)
{
    float mesh[4] = {}, *m = mesh;
    // Invalid requests are rejected before anything is deleted; an unknown index is named by both.
    struct Request {
        int index, w, h;
        float *mx, *my;
        const char* line;
    };
    for (const Request& r :
         {Request{-1, 2, 2, m, m, "invalid mesh! index=-1"}, Request{11, 0, 2, m, m, "invalid mesh! index=11"},
          Request{11, 2, 2, m, nullptr, "invalid mesh! index=11"}, Request{7, 2, 2, m, m, "index=7, mesh do not exist!"}}) {
        out = stdoutOf([&] { EXPECT_EQ(engine->glesRemapUpdateMesh(r.index, 8, 4, r.w, r.h, r.mx, r.my), -1); });
        EXPECT_NE(out.find(r.line), std::string::npos) << out;
    }
    EXPECT_EQ(fakegl::countCalls("glDeleteBuffers"), 0u);
}

TEST_F(RemapEngine, AfterAResizeOverlapsKeepTheirSetUpHeight)
{
    resource.output_startx = resource.output_width = resource.resize_startx = resource.resize_width =
        resource.resize_height = {0, 0};
    int doBlend[2] = {0, 0};
    ASSERT_EQ(engine->glesRemapResize(&layout, &resource, doBlend, 1200, 480), 0);
    fakegl::reset();
    ASSERT_EQ(run(&Engine::glesRemapOverlapNew), 0) << out;
    EXPECT_EQ(argsOf("glBindFramebuffer"), (Args{{GL_FRAMEBUFFER, engine->overlapFramebuffer[0][0].fbo_id},
                                                 {GL_FRAMEBUFFER, engine->overlapFramebuffer[1][0].fbo_id}}));
    EXPECT_EQ(argsOf("glViewport"), (Args{{0, 0, 40, 240}, {0, 0, 48, 240}}));
    EXPECT_EQ(argsOf("glDrawArrays"), Args(2, {GL_TRIANGLE_STRIP, 0, 28}));
    EXPECT_EQ(argsOf("glUseProgram"), Args(2, {6}));
}

// Each pass refuses what it cannot draw after the blocks before it; the non-overlap pass reports
// in its own error form, the overlap pass and the older passes with a plain line on standard error
// (an empty function below).
TEST_F(RemapEngine, EachPassReportsFailedStepsInItsOwnForm)
{
    struct Row {
        const char* what;
        std::function<void(Engine&)> fault;
        int (Engine::*pass)();
        const char* function;
        const char* line;
        size_t draws;
    } rows[] = {
        {"no output framebuffer", [](Engine& e) { e.framebuffer0 = 0; }, &Engine::glesRemapNonoverlapNew,
         "glesRemapNonoverlapNew", "framebuffer0=0 is illegal!", 0},
        {"camera 1's third block without buffers", [](Engine& e) { stdoutOf([&] {
             e.deleteSpecificVboFromCache(&e.vertexVboCache, 12), e.deleteSpecificVboFromCache(&e.texVertexVboCache, 12);
         }); }, &Engine::glesRemapOverlapNew, "glesRemapOverlapNew", "Error: can not find index=12 mesh info!\n", 1},
        {"position and texture meshes of different sizes", [](Engine& e) { e.getTexVertexVboInfoByIndex(0)->meshHeight = 18; },
         &Engine::glesRemapNonoverlapNew, "glesRemapNonoverlapNew", "Error: invalid mesh index=0 w=33 h=17!\n", 0},
        {"viewport refused", [](Engine& e) { e._remap_init_params.nonoverlap_block[0].dst_width[0] = -1; },
         &Engine::glesRemapNonoverlapNew, "glesRemapNonoverlapNew", "Could not set up graphics.\n", 0},
        {"overlap viewport refused", [](Engine& e) { e._remap_init_params.overlap_block[0].dst_width[0] = -1; },
         &Engine::glesRemapOverlapNew, "", "Could not set up graphics.\n", 0},
        {"texture bind refused", [](Engine&) { fakegl::failCall("glBindTexture", GL_INVALID_VALUE); },
         &Engine::glesRemapNonoverlapNew, "glesRemapNonoverlapNew", "glBindTexture textureID=101 failed!\n", 0},
        {"draw refused", [](Engine&) { fakegl::failCall("glDrawArrays", GL_INVALID_OPERATION); },
         &Engine::glesRemapNonoverlapNew, "glesRemapNonoverlapNew", "Could not render frame.\n", 1},
        {"older pass: a mesh past 512 quads across", [](Engine& e) {
             e._remap_init_params.nonoverlap_block[1].mesh_width[0] = 514, e.nonoverlapVertexesVBO = 90; },
         &Engine::glesRemapNonoverlapVBO, "", "Could not render frame.\n", 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(setUpEngine(), 0);
        fakegl::reset();
        row.fault(*engine);
        EXPECT_EQ(run(row.pass), -1);
        const bool plain = err.find(row.line) != std::string::npos && out.find(row.line) == std::string::npos;
        EXPECT_TRUE(*row.function ? hasErrorLine(out, row.function, row.line) : plain) << out << err;
        EXPECT_EQ(fakegl::countCalls("glDrawArrays"), row.draws);
    }
}

}  // namespace
