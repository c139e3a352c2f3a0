// Remap passes against the fake driver: what each block draws, where, from which buffers, and
// how each pass reports what stops it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "unit/remap_layout_support.h"

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
    long at = -1;
    for (int block = 0; block < 4; ++block) at = fakegl::findCall("glViewport", static_cast<size_t>(at + 1));
    const long vertexBind = fakegl::findCall("glBindBuffer", static_cast<size_t>(at));
    const long texBind = fakegl::findCall("glBindBuffer", static_cast<size_t>(vertexBind + 1));
    EXPECT_EQ(fakegl::calls()[vertexBind].args[1], engine->getVertexVboInfoByIndex(11)->mVboId);
    EXPECT_EQ(fakegl::calls()[texBind].args[1], engine->getTexVertexVboInfoByIndex(11)->mVboId);
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

TEST_F(RemapPasses, UpdatedMeshIsDrawnWithItsNewVertexCount)
{
    float mesh[8] = {};
    remap_test::stdoutOf([&] { ASSERT_EQ(engine->glesRemapUpdateMesh(0, 32, 16, 4, 2, mesh, mesh), 0); });
    ASSERT_EQ(run(&Engine::glesRemapNonoverlapNew), 0) << out;
    const Args draws = argsOf("glDrawArrays");
    ASSERT_EQ(draws.size(), 4u);
    EXPECT_EQ(draws[0][2], stripVertexCount(4, 2));
    EXPECT_EQ(draws[1][2], 1041);
}

TEST_F(RemapPasses, RefusesWhatItCannotDraw)
{
    engine->framebuffer0 = 0;
    EXPECT_EQ(run(&Engine::glesRemapNonoverlapNew), -1);
    EXPECT_TRUE(hasErrorLine(out, "glesRemapNonoverlapNew", "framebuffer0=0 is illegal!")) << out;
    EXPECT_EQ(fakegl::countCalls("glBindFramebuffer"), 0u);
    engine->framebuffer0 = kOutputFbo;

    // Camera 1's third block has no buffers: the blocks before it stay drawn.
    remap_test::stdoutOf([&] {
        engine->deleteSpecificVboFromCache(&engine->vertexVboCache, 12);
        engine->deleteSpecificVboFromCache(&engine->texVertexVboCache, 12);
    });
    EXPECT_EQ(run(&Engine::glesRemapOverlapNew), -1);
    EXPECT_TRUE(hasErrorLine(out, "glesRemapOverlapNew", "Error: can not find index=12 mesh info!\n")) << out;
    EXPECT_EQ(fakegl::countCalls("glDrawArrays"), 1u);

    // Position and texture meshes of different sizes.
    engine->getTexVertexVboInfoByIndex(0)->meshHeight = 18;
    EXPECT_EQ(run(&Engine::glesRemapNonoverlapNew), -1);
    EXPECT_TRUE(hasErrorLine(out, "glesRemapNonoverlapNew", "Error: invalid mesh index=0 w=33 h=17!\n")) << out;
    EXPECT_EQ(fakegl::countCalls("glDrawArrays"), 1u);
}

TEST_F(RemapPasses, EachPassReportsFailedStepsInItsOwnForm)
{
    // A viewport that cannot be set: an error line from the non-overlap pass, a plain line on
    // standard error from the overlap pass.
    engine->_remap_init_params.nonoverlap_block[0].dst_width[0] = -1;
    EXPECT_EQ(run(&Engine::glesRemapNonoverlapNew), -1);
    EXPECT_TRUE(hasErrorLine(out, "glesRemapNonoverlapNew", "Could not set up graphics.\n")) << out;
    engine->_remap_init_params.nonoverlap_block[0].dst_width[0] = 100;
    engine->_remap_init_params.overlap_block[0].dst_width[0] = -1;
    EXPECT_EQ(run(&Engine::glesRemapOverlapNew), -1);
    EXPECT_NE(err.find("Could not set up graphics.\n"), std::string::npos) << err;
    EXPECT_EQ(out.find("Could not set up graphics."), std::string::npos) << out;

    fakegl::failCall("glBindTexture", GL_INVALID_VALUE);
    EXPECT_EQ(run(&Engine::glesRemapNonoverlapNew), -1);
    EXPECT_TRUE(hasErrorLine(out, "glesRemapNonoverlapNew", "glBindTexture textureID=101 failed!\n")) << out;

    // A failed draw leaves the arrays enabled.
    fakegl::reset();
    fakegl::failCall("glDrawArrays", GL_INVALID_OPERATION);
    EXPECT_EQ(run(&Engine::glesRemapNonoverlapNew), -1);
    EXPECT_TRUE(hasErrorLine(out, "renderFrameNew", "renderFrame failed!\n")) << out;
    EXPECT_TRUE(hasErrorLine(out, "glesRemapNonoverlapNew", "Could not render frame.\n")) << out;
    EXPECT_EQ(fakegl::countCalls("glDisableVertexAttribArray"), 0u);
}

TEST_F(RemapPasses, OlderPassesDrawConsecutiveRunsOfSharedBuffers)
{
    engine->nonoverlapVertexesVBO = 90;
    engine->nonoverlapTexVertexesVBO = 91;
    ASSERT_EQ(run(&Engine::glesRemapNonoverlapVBO), 0) << out;
    std::vector<int64_t> offsets, buffers;
    for (const auto& args : argsOf("glVertexAttribPointer")) offsets.push_back(args[5]);
    for (const auto& args : argsOf("glBindBuffer"))
        if (args[1] != 0) buffers.push_back(args[1]);
    const int64_t block = 2 * 1041 * 4;  // bytes of one 33 x 17 block
    EXPECT_EQ(offsets, (std::vector<int64_t>{0, 0, block, block, 2 * block, 2 * block, 3 * block, 3 * block}));
    EXPECT_EQ(buffers, (std::vector<int64_t>{90, 91, 90, 91, 90, 91, 90, 91}));

    // A mesh past 512 quads across is refused by the draw; the pass reports on standard error.
    fakegl::reset();
    engine->_remap_init_params.nonoverlap_block[1].mesh_width[0] = 514;
    EXPECT_EQ(run(&Engine::glesRemapNonoverlapVBO), -1);
    EXPECT_NE(out.find("arguements illegal sizex=513,sizey=16,offset="), std::string::npos) << out;
    EXPECT_NE(err.find("Could not render frame.\n"), std::string::npos) << err;
    EXPECT_EQ(fakegl::countCalls("glDrawArrays"), 2u);
}

}  // namespace
