// Remap passes against the fake driver: what each block draws, where, from which buffers, and
// how each pass reports what stops it.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "unit/remap_engine_support.h"

namespace {

using remap_test::addCamera;
using remap_test::hasErrorLine;
using zqgfx_gpu_avs::stripVertexCount;
using Engine = zqgfx_gpu_avs::ZQGL_Remap;
using Args = std::vector<std::vector<int64_t>>;

constexpr GLuint kOutputFbo = 77;

Args argsOf(const std::string& fn)
{
    Args out;
    for (const fakegl::Call& call : fakegl::callsTo(fn)) out.push_back(call.args);
    return out;
}

// Two cameras, each with two non-overlap blocks of 33 x 17 nodes and one overlap block of 5 x 4,
// set up, with both camera images imported.
class RemapPasses : public remap_test::RemapLayoutTest {
protected:
    void SetUp() override
    {
        RemapLayoutTest::SetUp();
        addCamera(layout, {{0, 100, 33, 17}, {100, 100, 33, 17}}, {{0, 40, 5, 4}});
        addCamera(layout, {{300, 100, 33, 17}, {400, 100, 33, 17}}, {{0, 48, 5, 4}});
        fresh();
    }
    void fresh()
    {
        engine->deleteCachedVbo();
        engine = remap_test::makeEngine();
        ASSERT_EQ(setUpEngine(layout), 0);
        engine->textureID = {101, 102};
        engine->framebuffer0 = kOutputFbo;
        engine->gProgram = 5;
        engine->gProgramRGB = 6;
        fakegl::reset();  // keep only the pass's calls
    }

    int run(int (Engine::*pass)())
    {
        int result = 0;
        testing::internal::CaptureStderr();
        out = remap_test::stdoutOf([&] { result = (engine.get()->*pass)(); });
        err = testing::internal::GetCapturedStderr();
        return result;
    }

    PSR_INITPARAMS_T layout = remap_test::makeLayout(600, 240);
    std::string out, err;
};

TEST_F(RemapPasses, NonoverlapPassDrawsEachBlockIntoItsColumns)
{
    ASSERT_EQ(run(&Engine::glesRemapNonoverlapNew), 0) << out;
    EXPECT_EQ(argsOf("glBindFramebuffer"), (Args{{GL_FRAMEBUFFER, kOutputFbo}}));
    EXPECT_EQ(fakegl::countCalls("glClear"), 0u);  // uncovered columns keep the buffer's content
    EXPECT_EQ(argsOf("glDrawArrays"), Args(4, {GL_TRIANGLE_STRIP, 0, 1041}));
    EXPECT_EQ(argsOf("glViewport"),
              (Args{{0, 0, 100, 240}, {100, 0, 100, 240}, {300, 0, 100, 240}, {400, 0, 100, 240}}));
    const int64_t oes = GL_TEXTURE_EXTERNAL_OES;
    EXPECT_EQ(argsOf("glBindTexture"), (Args{{oes, 101}, {oes, 101}, {oes, 102}, {oes, 102}}));
    EXPECT_EQ(argsOf("glActiveTexture"), Args(4, {GL_TEXTURE0}));
    EXPECT_EQ(argsOf("glUseProgram"), Args(4, {5}));
    // The fourth block (index 11) draws from its own cached pair.
    std::vector<int64_t> bound;
    for (const auto& args : argsOf("glBindBuffer"))
        if (args[1] != 0) bound.push_back(args[1]);
    ASSERT_GE(bound.size(), 2u);
    EXPECT_EQ(bound[bound.size() - 2], engine->getVertexVboInfoByIndex(11)->mVboId);
    EXPECT_EQ(bound.back(), engine->getTexVertexVboInfoByIndex(11)->mVboId);
}

TEST_F(RemapPasses, AfterAResizeOverlapsKeepTheirSetUpHeight)
{
    resource.output_startx = resource.output_width = resource.resize_startx = resource.resize_width =
        resource.resize_height = {0, 0};
    int doBlend[2] = {0, 0};
    ASSERT_EQ(engine->glesRemapResize(&layout, &resource, doBlend, 1200, 480), 0);

    ASSERT_EQ(run(&Engine::glesRemapOverlapNew), 0) << out;
    EXPECT_EQ(argsOf("glBindFramebuffer"), (Args{{GL_FRAMEBUFFER, engine->overlapFramebuffer[0][0].fbo_id},
                                                 {GL_FRAMEBUFFER, engine->overlapFramebuffer[1][0].fbo_id}}));
    EXPECT_EQ(argsOf("glViewport"), (Args{{0, 0, 40, 240}, {0, 0, 48, 240}}));
    EXPECT_EQ(argsOf("glDrawArrays"), Args(2, {GL_TRIANGLE_STRIP, 0, stripVertexCount(5, 4)}));
    EXPECT_EQ(argsOf("glUseProgram"), Args(2, {6}));

    // The non-overlap blocks move and widen with the output.
    fakegl::reset();
    ASSERT_EQ(run(&Engine::glesRemapNonoverlapNew), 0) << out;
    EXPECT_EQ(argsOf("glViewport"),
              (Args{{0, 0, 200, 480}, {200, 0, 200, 480}, {600, 0, 200, 480}, {800, 0, 200, 480}}));
}

// Each pass refuses what it cannot draw after the blocks before it; the non-overlap pass reports
// in its own error form, the overlap pass and the older passes with a plain line on standard error
// (an empty function below).
TEST_F(RemapPasses, EachPassReportsFailedStepsInItsOwnForm)
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
        {"camera 1's third block without buffers", [](Engine& e) { remap_test::stdoutOf([&] {
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
        fresh();
        row.fault(*engine);
        EXPECT_EQ(run(row.pass), -1);
        const bool plain = err.find(row.line) != std::string::npos && out.find(row.line) == std::string::npos;
        EXPECT_TRUE(*row.function ? hasErrorLine(out, row.function, row.line) : plain) << out << err;
        EXPECT_EQ(fakegl::countCalls("glDrawArrays"), row.draws);
    }
}

}  // namespace
