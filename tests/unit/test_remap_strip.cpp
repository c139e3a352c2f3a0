// Mesh-to-strip generation: vertex order, positions and texture coordinates, on the CPU alone.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "unit/remap_engine_support.h"

namespace {

using zqgfx_gpu_avs::stripVertexCount;

struct Strip {
    std::vector<float> pos, tex;
};

// Strip of a W x H mesh whose node (c, r) holds source position (c, r), in arrays with four
// spare floats of sentinel behind the strip.
Strip generate(int w, int h, int step_x, int dst_w, int src_w, int src_h)
{
    std::vector<float> mx, my;
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) mx.push_back(static_cast<float>(c)), my.push_back(static_cast<float>(r));
    const size_t floats = 2 * static_cast<size_t>(stripVertexCount(w, h)) + 4;
    Strip s{std::vector<float>(floats, -99.0f), std::vector<float>(floats, -99.0f)};
    remap_test::makeEngine()->vertexesValuationStripNew(mx.data(), my.data(), step_x, 16, w, h, 0, dst_w,
                                                        16 * (h - 1), src_w, src_h, s.pos.data(), s.tex.data());
    return s;
}

TEST(RemapStrip, SnakesThroughRowsWithTurnsAtTheEdges)
{
    // Source size 1: texture coordinate (c + 0.5, r + 0.5) names the node a vertex came from. The
    // mesh spans the block exactly: the last column, turn vertex included, is at x = 1.
    const Strip s = generate(3, 3, 16, 32, 1, 1);
    const std::vector<std::pair<int, int>> order = {{0, 0}, {0, 1}, {1, 0}, {1, 1}, {2, 0}, {2, 1},
                                                    {2, 2}, {1, 1}, {1, 2}, {0, 1}, {0, 2}};
    for (size_t i = 0; i < order.size(); ++i) {
        const auto [c, r] = order[i];
        SCOPED_TRACE(i);
        EXPECT_EQ(std::vector<float>(s.tex.begin() + 2 * i, s.tex.begin() + 2 * i + 2), (std::vector<float>{c + 0.5f, r + 0.5f}));
        EXPECT_EQ(std::vector<float>(s.pos.begin() + 2 * i, s.pos.begin() + 2 * i + 2), (std::vector<float>{c - 1.0f, r - 1.0f}));
    }
    EXPECT_TRUE(s.pos[22] == -99.0f && s.tex[22] == -99.0f);

    // One row of nodes is one vertex; the source pixel's centre is sampled.
    const Strip single = generate(4, 1, 16, 48, 640, 480);
    EXPECT_FLOAT_EQ(single.pos[0], -1.0f);
    EXPECT_EQ(single.tex[0], static_cast<float>(0.5 / 640));
    EXPECT_EQ(single.tex[1], static_cast<float>(0.5 / 480));
    EXPECT_EQ(single.pos[2], -99.0f);
}

TEST(RemapStrip, OddRowTurnKeepsTheIntegerQuotient)
{
    // Vertex 4 is node (2, 0), vertex 6 the turn onto node (2, 2). Across 40 pixels the quotient
    // 32 / 40 is 0: the turn lands on x = -1 while its column lies at 2 * 0.8 - 1.
    const Strip narrow = generate(3, 3, 16, 40, 1, 1), wide = generate(3, 3, 16, 20, 1, 1);
    EXPECT_FLOAT_EQ(narrow.pos[8], 0.6f);
    EXPECT_FLOAT_EQ(narrow.pos[12], -1.0f);
    EXPECT_FLOAT_EQ(narrow.tex[12], 2.5f);  // its texture coordinate stays that of node (2, 2)
    EXPECT_FLOAT_EQ(wide.pos[8], 2.2f);
    EXPECT_FLOAT_EQ(wide.pos[12], 1.0f);
    // A one-column mesh has a zero-width block and no quotient: no trap, three vertices.
    const Strip flat = generate(1, 3, 16, 0, 1, 1);
    EXPECT_FLOAT_EQ(flat.tex[5], 2.5f);
    EXPECT_EQ(flat.pos[6], -99.0f);
}

}  // namespace
