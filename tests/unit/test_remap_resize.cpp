// Resize arithmetic: rescaled non-overlap blocks and seam windows snapped onto their edges,
// always computed from the initial layout.
#include <gtest/gtest.h>

#include <vector>

#include "gles_multiband_blend.h"
#include "unit/remap_engine_support.h"

namespace {

using remap_test::addCamera;
using remap_test::makeLayout;
using zqgfx_gpu_avs::multibandResource;
using zqgfx_gpu_avs::resizeLayout;

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
    const zqPSR_NONOVERLAP_BLOCK& moved = rig.resized.nonoverlap_block[1];
    EXPECT_EQ((std::vector<int>{moved.dst_startx[0], moved.dst_width[0], rig.resized.bld_width, rig.resized.bld_height,
                                rig.resource.resize_height[0]}),
              (std::vector<int>{150, 150, 600, 200, 200}));

    // A second resize starts again from the initial layout, not from the first.
    ASSERT_EQ(rig.resize(1000, 500), 0);
    EXPECT_TRUE(rig.resized.nonoverlap_block[1].dst_startx[0] == 250 && rig.resized.nonoverlap_block[1].dst_width[0] == 250);  // 250.83 truncated, 249.17 rounded up
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
    EXPECT_EQ(rig.resized.nonoverlap_block[1].dst_startx[0], 160);  // the blocks still move

    // No scale from an empty initial size, no windows without a full seam plan: nothing moves.
    Rig flat(280, 40, 600, 40);
    flat.initial.bld_width = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(flat.resize(500, 250), -1);
    flat.initial.bld_width = 1000;
    flat.resource.resize_height.pop_back();
    EXPECT_EQ(flat.resize(500, 250), -1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("resize refused"), std::string::npos);
    EXPECT_EQ(flat.resized.bld_width, 1000);
    EXPECT_EQ(flat.resized.nonoverlap_block[1].dst_startx[0], 320);
    EXPECT_EQ(flat.resource.resize_startx[0], 7);
}

}  // namespace
