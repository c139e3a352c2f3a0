// Remap set-up against the fake driver: overlap framebuffers, mesh buffer cache, mesh updates.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "unit/remap_engine_support.h"

namespace {

using remap_test::addCamera;
using remap_test::hasErrorLine;
using remap_test::makeLayout;
using remap_test::stdoutOf;
using zqgfx_gpu_avs::RemapVboInfo;

std::vector<int> indices(const std::vector<RemapVboInfo>& cache)
{
    std::vector<int> out;
    for (const RemapVboInfo& entry : cache) out.push_back(entry.mIndex);
    return out;
}

// Two cameras, each with two non-overlap blocks of 3 x 3 nodes and one overlap block of 5 x 4.
class RemapSetUp : public remap_test::RemapLayoutTest {
protected:
    void SetUp() override
    {
        RemapLayoutTest::SetUp();
        addCamera(layout, {{0, 100, 3, 3}, {100, 100, 3, 3}}, {{0, 40, 5, 4}});
        addCamera(layout, {{300, 100, 3, 3}, {400, 100, 3, 3}}, {{0, 48, 5, 4}});
        ASSERT_EQ(setUpEngine(layout), 0);
    }

    int update(int index, int w, int h, float* mx, float* my)
    {
        int result = 0;
        out = stdoutOf([&] { result = engine->glesRemapUpdateMesh(index, 8, 4, w, h, mx, my); });
        return result;
    }

    PSR_INITPARAMS_T layout = makeLayout(600, 240);
    std::string out;
};

TEST_F(RemapSetUp, OneFramebufferPerOverlapBlockAndOneBufferPairPerBlockUnderItsMeshIndex)
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
        EXPECT_EQ(images[cam].args[3], layout.overlap_block[cam].dst_width[0]);
        EXPECT_EQ(images[cam].args[4], 240);
    }

    EXPECT_EQ(indices(engine->vertexVboCache), (std::vector<int>{0, 1, 2, 10, 11, 12}));
    EXPECT_EQ(indices(engine->texVertexVboCache), indices(engine->vertexVboCache));
    // 12 is camera 1's third block: its overlap block, with the overlap mesh size.
    RemapVboInfo* vertex = engine->getVertexVboInfoByIndex(12);
    RemapVboInfo* tex = engine->getTexVertexVboInfoByIndex(12);
    ASSERT_TRUE(vertex && tex);
    EXPECT_TRUE(vertex->meshWidth == 5 && vertex->meshHeight == 4 && vertex->mVboId != tex->mVboId);
    EXPECT_EQ(fakegl::liveObjects("buffer"), 12u);
    engine->deleteCachedVbo();
    EXPECT_EQ(fakegl::liveObjects("buffer") + fakegl::doubleDeletes(), 0u);
    EXPECT_EQ(engine->vertexVboCache.capacity() + engine->texVertexVboCache.capacity(), 0u);
}

TEST_F(RemapSetUp, UpdateReplacesTheBlockAtTheEndOfBothCaches)
{
    const GLuint oldVertex = engine->getVertexVboInfoByIndex(11)->mVboId;
    std::vector<float> mx(8, 1.0f), my(8, 2.0f);
    ASSERT_EQ(update(11, 4, 2, mx.data(), my.data()), 0) << out;
    EXPECT_EQ(indices(engine->vertexVboCache), (std::vector<int>{0, 1, 2, 10, 12, 11}));
    EXPECT_EQ(indices(engine->texVertexVboCache), indices(engine->vertexVboCache));
    const RemapVboInfo& entry = engine->vertexVboCache.back();
    EXPECT_TRUE(entry.meshWidth == 4 && entry.meshHeight == 2);
    EXPECT_FALSE(fakegl::isLive("buffer", oldVertex));
    // Two floats of four bytes per vertex of the new strip; coordinates from the engine's source size.
    EXPECT_EQ(fakegl::callsTo("glBufferData").back().args[1], 8 * 2 * 4);
    EXPECT_FLOAT_EQ(engine->texVertexVboCache.back().mVertexes[0], 1.5f / 640);
}

TEST_F(RemapSetUp, UpdatesThatCannotApplyFailAndSayWhy)
{
    float mesh[4] = {}, *m = mesh;
    // Invalid requests are rejected before anything is deleted; an unknown index is named by both.
    using Request = std::tuple<int, int, int, float*, float*, const char*>;
    for (auto [index, w, h, mx, my, line] :
         {Request{-1, 2, 2, m, m, "invalid mesh! index=-1"}, Request{11, 0, 2, m, m, "invalid mesh! index=11"},
          Request{11, 2, 0, m, m, "invalid mesh! index=11"}, Request{11, 2, 2, nullptr, m, "invalid mesh! index=11"},
          Request{11, 2, 2, m, nullptr, "invalid mesh! index=11"}, Request{7, 2, 2, m, m, "index=7, mesh do not exist!"}}) {
        EXPECT_EQ(update(index, w, h, mx, my), -1);
        EXPECT_NE(out.find(line), std::string::npos) << out;
    }
    EXPECT_EQ(fakegl::countCalls("glDeleteBuffers"), 0u);

    // Present in one cache only: that entry is removed all the same, and nothing is rebuilt.
    ASSERT_TRUE(engine->deleteSpecificVboFromCache(&engine->vertexVboCache, 11));
    EXPECT_EQ(update(11, 2, 2, m, m), -1);
    EXPECT_EQ(indices(engine->texVertexVboCache), (std::vector<int>{0, 1, 2, 10, 12}));
}

TEST_F(RemapSetUp, BlocksThatCannotBeBuiltAreRefused)
{
    engine->deleteCachedVbo();
    auto shortX = meshes->meshx;
    shortX[1].pop_back();
    auto nullY = meshes->meshy;
    nullY[0][1] = nullptr;
    for (const auto& tables : {std::make_pair(shortX, meshes->meshy), std::make_pair(meshes->meshx, nullY)}) {
        out = stdoutOf([&] { EXPECT_EQ(engine->create_remap_VBO_by_mesh(tables.first, tables.second), -1); });
        EXPECT_NE(out.find("has no mesh"), std::string::npos) << out;
        engine->deleteCachedVbo();
    }

    // An eleventh block would share the next camera's first mesh index.
    PSR_INITPARAMS_T crowded = makeLayout(600, 240);
    addCamera(crowded, std::vector<remap_test::TestBlock>(9, {0, 10, 2, 2}), {{0, 10, 2, 2}, {0, 10, 2, 2}});
    remap_test::TestMeshes crowdedMeshes(crowded);
    engine->_remap_init_params = crowded;
    out = stdoutOf([&] { EXPECT_EQ(engine->create_remap_VBO_by_mesh(crowdedMeshes.meshx, crowdedMeshes.meshy), -1); });
    EXPECT_NE(out.find("camera 0 has 11 blocks"), std::string::npos) << out;
    EXPECT_TRUE(engine->vertexVboCache.empty());

    // The driver hands out no buffer name: the second buffer is not attempted.
    fakegl::reset();
    fakegl::inject().zeroBufferName = true;
    out = stdoutOf([&] { EXPECT_EQ(engine->creatVbo(12, meshes->nodes.data(), meshes->nodes.data(), 0, 2, 2, 16, 16, 640, 480), -1); });
    EXPECT_TRUE(hasErrorLine(out, "creatVbo", "create vbo12 failed!\n")) << out;
    EXPECT_EQ(fakegl::countCalls("glGenBuffers"), 1u);
}

}  // namespace
