// Remap geometry on the CPU alone: meshes turned into triangle strips, and resized layouts with
// seam windows snapped onto their block edges, always computed from the initial layout.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <utility>
#include <vector>

#include "unit/remap_engine_support.h"

namespace {

using namespace remap_test;
using namespace zqgfx_gpu_avs;

struct Strip {
    std::vector<float> pos, tex;
};

// Strip of a W x H mesh whose node (c, r) holds source position (c, r) of a source of size 1, so
// that texture coordinate (c + 0.5, r + 0.5) names the node; four spare floats of sentinel follow.
Strip generate(int w, int h, int dst_w)
{
    std::vector<float> mx, my;
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) mx.push_back(static_cast<float>(c)), my.push_back(static_cast<float>(r));
    const size_t floats = 2 * static_cast<size_t>(stripVertexCount(w, h)) + 4;
    Strip s{std::vector<float>(floats, -99.0f), std::vector<float>(floats, -99.0f)};
    makeEngine()->vertexesValuationStripNew(mx.data(), my.data(), 16, 16, w, h, 0, dst_w, 16 * (h - 1), 1, 1,
                                                        s.pos.data(), s.tex.data());
    return s;
}

TEST(RemapStrip, CoversEveryCellOnceThroughEveryNode)
{
    // Meshes that span their blocks exactly: each vertex sits at its node's place.
    for (auto [w, h] : {std::pair<int, int>{3, 3}, {4, 2}, {2, 5}, {5, 4}}) {
        SCOPED_TRACE(testing::Message() << w << " x " << h);
        const Strip s = generate(w, h, 16 * (w - 1));
        const int count = stripVertexCount(w, h);
        EXPECT_TRUE(s.pos[2 * count - 1] != -99.0f && s.pos[2 * count] == -99.0f);  // exactly `count` written
        std::set<std::pair<float, float>> reached;
        double cells = 0;
        for (int i = 0; i < count; ++i) {
            const float c = s.tex[2 * i] - 0.5f, r = s.tex[2 * i + 1] - 0.5f;
            reached.insert({c, r});
            EXPECT_FLOAT_EQ(s.pos[2 * i], 2 * c / (w - 1) - 1) << i;
            EXPECT_FLOAT_EQ(s.pos[2 * i + 1], 2 * r / (h - 1) - 1) << i;
            if (i < 2) continue;
            const float* t = &s.tex[2 * i - 4];  // the triangle ending at vertex i, in node units
            cells += std::abs((t[2] - t[0]) * (t[5] - t[1]) - (t[4] - t[0]) * (t[3] - t[1])) / 2;
        }
        EXPECT_EQ(reached.size(), static_cast<size_t>(w * h));
        EXPECT_DOUBLE_EQ(cells, (w - 1) * (h - 1));  // no cell left out or drawn twice
    }
}

TEST(RemapStrip, OddRowTurnKeepsTheIntegerQuotient)
{
    // Vertex 6 is the turn onto node (2, 2). Across 40 pixels the quotient 32 / 40 is 0: the turn
    // lands on x = -1 while its column lies at 2 * 0.8 - 1.
    const Strip narrow = generate(3, 3, 40);
    EXPECT_FLOAT_EQ(narrow.pos[12], -1.0f);
    EXPECT_FLOAT_EQ(narrow.tex[12], 2.5f);  // its texture coordinate stays that of node (2, 2)
    // A one-column mesh has a zero-width block and no quotient: no trap, three vertices.
    const Strip flat = generate(1, 3, 0);
    EXPECT_FLOAT_EQ(flat.tex[5], 2.5f);
    EXPECT_EQ(flat.pos[6], -99.0f);
}

// Two cameras at 1000 x 500: camera 0's block ends at 280, camera 1's starts at 320, and each
// camera's seam window is planned at (startx, width).
struct Rig {
    Rig(int start0, int width0, int start1, int width1, int firstBlockStart = 0)
    {
        addCamera(initial, {{firstBlockStart, 280 - firstBlockStart, 9, 9}}, {{0, 40, 9, 9}});
        addCamera(initial, {{320, 280, 9, 9}}, {{0, 40, 9, 9}});
        resized = initial;
        resource.output_startx = {start0, start1};
        resource.output_width = {width0, width1};
        resource.resize_startx = {7, 7};
        resource.resize_width = {8, 8};
        resource.resize_height = {9, 9};
    }

    int resize(int bld_w, int bld_h) { return resizeLayout(initial, doBlend, bld_w, bld_h, &resized, &resource); }
    std::vector<int> window(int cam) const
    {
        return {resource.resize_startx[cam], resource.resize_width[cam], resource.resize_height[cam]};
    }
    int movedStart() const { return resized.nonoverlap_block[1].dst_startx[0]; }

    PSR_INITPARAMS_T initial = makeLayout(1000, 500);
    PSR_INITPARAMS_T resized;
    multibandResource resource{};
    int doBlend[2] = {1, 1};
};

TEST(RemapResize, ScalesFromTheInitialLayoutInSinglePrecision)
{
    Rig rig(280, 40, 600, 40);
    rig.initial.bld_width = 1200;
    rig.initial.nonoverlap_block[1].dst_startx[0] = 301;
    rig.initial.nonoverlap_block[1].dst_width[0] = 299;
    ASSERT_EQ(rig.resize(600, 200), 0);
    // Start truncated from 150.5, width rounded up from 149.5.
    EXPECT_EQ((std::vector<int>{rig.movedStart(), rig.resized.nonoverlap_block[1].dst_width[0], rig.resized.bld_width,
                                rig.resized.bld_height, rig.resource.resize_height[0]}),
              (std::vector<int>{150, 150, 600, 200, 200}));

    // A second resize starts again from the initial layout: 250.83 truncated, 249.17 rounded up.
    ASSERT_EQ(rig.resize(1000, 500), 0);
    EXPECT_TRUE(rig.movedStart() == 250 && rig.resized.nonoverlap_block[1].dst_width[0] == 250);
    EXPECT_EQ(rig.resized.output_image_stride, 1008u);
}

TEST(RemapResize, WindowsSnapOntoBlockEdgesWithinTwoPixels)
{
    for (int offset : {-3, -2, 2, 3}) {
        SCOPED_TRACE(offset);
        const bool snaps = offset == 2 || offset == -2;
        // Start against camera 0's block edge at 280 (the right edge lies far from any block).
        Rig start(280 + offset, 100, 600, 40);
        ASSERT_EQ(start.resize(1000, 500), 0);
        EXPECT_EQ(start.window(0), (std::vector<int>{snaps ? 280 : 280 + offset, 100, 500}));
        // Right edge against camera 1's block start at 320.
        Rig width(280, 40 + offset, 600, 40);
        ASSERT_EQ(width.resize(1000, 500), 0);
        EXPECT_EQ(width.window(0), (std::vector<int>{280, snaps ? 40 : 40 + offset, 500}));
    }
    // The right edge is taken from the snapped start: 282 + 42 is 4 pixels off, 280 + 42 only 2.
    Rig rig(282, 42, 600, 40);
    ASSERT_EQ(rig.resize(1000, 500), 0);
    EXPECT_EQ(rig.window(0), (std::vector<int>{280, 40, 500}));
    // The last camera's window meets camera 0's block, which starts at 41 here.
    Rig last(280, 40, 0, 40, 41);
    ASSERT_EQ(last.resize(1000, 500), 0);
    EXPECT_EQ(last.window(1), (std::vector<int>{0, 41, 500}));
}

TEST(RemapResize, UnblendedCamerasAndRefusedInputsKeepTheirValues)
{
    Rig rig(283, 40, 600, 40);
    rig.doBlend[0] = 0;
    rig.doBlend[1] = -1;
    ASSERT_EQ(rig.resize(500, 250), 0);
    EXPECT_TRUE(rig.window(0) == (std::vector<int>{7, 8, 9}) && rig.window(1) == rig.window(0));
    EXPECT_EQ(rig.movedStart(), 160);  // the blocks still move

    // No scale from an empty initial size, no windows without a full seam plan: nothing moves.
    Rig flat(280, 40, 600, 40);
    flat.initial.bld_width = 0;
    const std::string out = stdoutOf([&] {
        EXPECT_EQ(flat.resize(500, 250), -1);
        flat.initial.bld_width = 1000;
        flat.resource.resize_height.pop_back();
        EXPECT_EQ(flat.resize(500, 250), -1);
    });
    EXPECT_NE(out.find("resize refused"), std::string::npos);
    EXPECT_TRUE(flat.resized.bld_width == 1000 && flat.movedStart() == 320 && flat.resource.resize_startx[0] == 7);
}

}  // namespace
