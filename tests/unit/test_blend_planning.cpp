// Blend planning: which camera blends which seam, the strip's geometry and the copies made for
// the blend engine; and the translation of the caller's mesh numbers.
#include "calibration_dir.h"
#include "blend/gles_multiband_blend.h"
#include "api/zqgfx_gpu_avs_internal.h"

using zqgfx_gpu_avs::multibandResource;

namespace {

struct Plan {
    std::vector<int> doBlend;
    multibandResource resource;
};

// Camera c's overlap blocks start at columns starts[c]; a block at column x has an alpha map of
// (100 + x) x (50 + x) and band_num x % 7.
Plan plan(const std::vector<std::vector<int>>& starts)
{
    PSR_INITPARAMS_T layout;
    layout.camera_num = static_cast<int>(starts.size());
    layout.bld_width = 4096, layout.bld_height = 720;
    for (const std::vector<int>& columns : starts) {
        zqPSR_OVERLAP_BLOCK o;
        o.overlap_num = static_cast<int>(columns.size());
        for (int x : columns)
            o.band_num.push_back(x % 7), o.dst_startx.push_back(x), o.alpha_width.push_back(100 + x),
                o.alpha_height.push_back(50 + x);
        layout.overlap_block.push_back(o);
    }
    const ZQGFX_AVS_CONTEXT_T context{};
    Plan result{std::vector<int>(starts.size(), -1), {}};
    fill_multiband_layout(&layout, &context, &result.resource, result.doBlend.data());
    return result;
}

// The start column of the strip each camera blends, or -1 for a camera that does not blend.
std::vector<int> blendedColumns(const std::vector<std::vector<int>>& starts)
{
    const Plan p = plan(starts);
    std::vector<int> columns;
    for (size_t c = 0; c < starts.size(); ++c) columns.push_back(p.doBlend[c] ? p.resource.output_startx[c] : -1);
    return columns;
}

TEST(BlendPlanning, CamerasBlendWhereTheirStartsMeetTheNeighboursTwoCamerasByCount)
{
    // Three cameras; camera 0 is planned against camera 1. Expected: camera 0's strip column.
    const std::vector<std::pair<std::vector<std::vector<int>>, int>> rows = {
        {{{}, {10}, {99}}, -1},           {{{10}, {}, {99}}, -1},               // no overlap on either side
        {{{10}, {10, 20}, {99}}, 10},     {{{20}, {10, 20}, {99}}, 20},         // 1-2
        {{{30}, {10, 20}, {99}}, -1},     {{{10}, {10}, {99}}, 10},             // 1-1
        {{{11}, {10}, {99}}, -1},         {{{20}, {10, 20, 30}, {99}}, -1},     // 1-3: first block only
        {{{10}, {10, 20, 30}, {99}}, 10}, {{{5, 10}, {10, 20}, {99}}, 10},      // 2-2
        {{{20, 10}, {10, 20}, {99}}, 10}, {{{20, 5}, {10, 20}, {99}}, 20},      // 2-2: neighbour's first wins
        {{{1, 2}, {10, 20}, {99}}, -1},   {{{5, 10}, {10}, {99}}, 10},          // 2-1
        {{{5, 20}, {10, 20, 30}, {99}}, -1}, {{{10, 20, 30}, {10, 20}, {99}}, -1},  // 2-3; 3 never blends
    };
    for (const auto& row : rows) EXPECT_EQ(blendedColumns(row.first)[0], row.second) << testing::PrintToString(row.first);

    EXPECT_EQ(blendedColumns({{10}, {10}, {20}}), (std::vector<int>{10, -1, -1}));
    EXPECT_EQ(blendedColumns({{10}, {20}, {10}}), (std::vector<int>{-1, -1, 10}));  // the last wraps to camera 0
    EXPECT_EQ(blendedColumns({{1, 2}, {2, 3}, {3, 4}, {4, 1}}), (std::vector<int>{2, 3, 4, 1}));
    EXPECT_EQ(blendedColumns({{42}}), (std::vector<int>{42}));  // one camera is its own neighbour
    // Two cameras pair blocks by count alone: one each, camera 0's own; two each, camera 1's.
    EXPECT_EQ(blendedColumns({{10}, {77}}), (std::vector<int>{10, -1}));
    EXPECT_EQ(blendedColumns({{1, 2}, {30, 40}}), (std::vector<int>{30, 40}));
    EXPECT_EQ(blendedColumns({{10}, {10, 20}}), (std::vector<int>{-1, -1}));
    EXPECT_EQ(blendedColumns({{10, 20}, {10, 20, 30}}), (std::vector<int>{-1, -1}));
}

// The context's fields are shown to reach the engine at the entry points.
TEST(BlendPlanning, TheEngineGetsALevelMoreThanTheBandsAndSeamWindowsAsHighAsThePanorama)
{
    const Plan p = plan({{0, 4}, {}, {7, 0}});
    const multibandResource& r = p.resource;
    // Per block: band_num one above the layout's; a camera without overlap keeps empty rows.
    EXPECT_EQ(r.band_num, (std::vector<std::vector<int32_t>>{{1, 5}, {}, {1, 1}}));
    EXPECT_EQ(r.alpha_height[2], (std::vector<int32_t>{57, 50}));
    // Camera 2's second block meets camera 0's first: the strip is camera 0's block 0. The others
    // keep zeros, and every camera's resize rectangle starts as its strip at the full height.
    EXPECT_EQ(p.doBlend, (std::vector<int>{0, 0, 1}));
    EXPECT_EQ(r.output_width, (std::vector<int32_t>{0, 0, 100}));
    EXPECT_EQ(r.output_height, (std::vector<int32_t>{0, 0, 50}));
    EXPECT_EQ(r.multi_band_num, (std::vector<int32_t>{0, 0, 1}));
    EXPECT_EQ(r.resize_width, r.output_width);
    EXPECT_EQ(r.resize_startx, r.output_startx);
    EXPECT_EQ(r.resize_height, (std::vector<int32_t>{720, 720, 720}));
}

TEST(MeshIndex, RunningBlockNumbersMapToCameraTimesTenPlusBlock)
{
    PSR_INITPARAMS_T layout = entry_test::ringLayout(3, 2, 1);  // three blocks per camera
    const std::vector<std::pair<int, int>> rows = {{0, 0}, {2, 2}, {3, 10}, {4, 11}, {5, 12}, {8, 22}, {9, -1}, {-1, -1}};
    for (const auto& row : rows) EXPECT_EQ(translate_mesh_index(&layout, row.first), row.second) << row.first;
    layout.nonoverlap_block[1] = zqPSR_NONOVERLAP_BLOCK();  // camera 1: its overlap block only
    EXPECT_EQ(translate_mesh_index(&layout, 3), 10);
    EXPECT_EQ(translate_mesh_index(&layout, 4), 20);
}

}  // namespace
