// The synthetic calibration generator: layouts the library's blend planning accepts, alpha maps,
// colour and the PSNR the pixel tests measure with. That its meshes rebuild the scene and its
// buffer-mode records give the bytes of its files is shown on the real driver (StitchPipeline).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "blend/gles_multiband_blend.h"
#include "zqavs_synth.h"
#include "api/zqgfx_gpu_avs_internal.h"

using namespace zqavs_synth;

TEST(Synth, LayoutTilesThePanoramaAndTheLibraryBlendsEverySeamButTheWrap)
{
    for (int n : {1, 2, 4, 10}) {
        SCOPED_TRACE(n);
        RigConfig rig;
        rig.cameras = n;
        rig.src_width = 320, rig.src_height = 180, rig.bld_width = 256 * n, rig.bld_height = 160;
        rig.overlap_width = 32;
        rig.band_num = 2;
        Calibration calib;
        std::string error;
        ASSERT_TRUE(generateCalibration(rig, &calib, &error)) << error;
        PSR_INITPARAMS_T& layout = calib.layout;
        // Every column belongs to one camera alone (counted twice) or to two overlap blocks.
        std::vector<int> cover(rig.bld_width, 0);
        for (int c = 0; c < n; ++c) {
            for (const zqavs_calib_core::BlockView& b : zqavs_calib_core::cameraBlocks(layout, c))
                for (int x = b.dst_startx; x < b.dst_startx + b.dst_width; ++x) cover[x] += b.overlap ? 1 : 2;
            EXPECT_EQ(layout.overlap_block[c].overlap_num, n == 1 ? 0 : (c == 0 || c == n - 1 ? 1 : 2));
            ASSERT_EQ(calib.meshes[c].size(), static_cast<size_t>(layout.image_block_num[c]));
        }
        EXPECT_EQ(cover, std::vector<int>(rig.bld_width, 2));

        // The library's planning blends camera c's seam with c + 1 at the seam's column, the last
        // camera with nobody.
        ZQGFX_AVS_CONTEXT_T context{};
        zqgfx_gpu_avs::multibandResource resource;
        std::vector<int> doBlend(n, -1), expected(n, 1);
        expected[n - 1] = 0;
        fill_multiband_layout(&layout, &context, &resource, doBlend.data());
        EXPECT_EQ(doBlend, expected);
        ASSERT_EQ(calib.seams.size(), static_cast<size_t>(n - 1));
        ASSERT_EQ(calib.alphas.size(), calib.seams.size());
        for (int c = 0; c + 1 < n; ++c) {
            EXPECT_EQ(resource.output_startx[c], calib.seams[c].startx) << c;
            EXPECT_EQ(resource.output_width[c], rig.overlap_width) << c;
            EXPECT_EQ(calib.alphas[c].camera, c);
            EXPECT_EQ(calib.alphas[c].next, c + 1);
        }
    }
}

TEST(Synth, AlphaMapsHaveTheLibrarysLevelsBoxReducedFromTheFinest)
{
    std::vector<LevelSize> sizes = alphaLevelSizes(101, 40, 4);
    for (int l = 0; l < 4; ++l)
        EXPECT_EQ(std::make_pair(sizes[l].width, sizes[l].height),
                  std::make_pair(zqgfx_gpu_avs::pyramidLevelSize(101, l), zqgfx_gpu_avs::pyramidLevelSize(40, l)));
    EXPECT_EQ(alphaElementCount(100, 40, 3), static_cast<size_t>(zqgfx_gpu_avs::alphaBufferLength(100, 40, 3)));

    AlphaMap step = buildAlphaMap(2, 3, 100, 40, 3, AlphaType::Float, SeamProfile::Step);
    ASSERT_EQ(step.bytes.size(), alphaElementCount(100, 40, 3) * 4);
    // The step stays sharp at width 50 (level 1 starts at 4000) and softens to one half at width
    // 25 (level 2 at 5000), where a re-evaluated profile would stay 0 or 1.
    const std::pair<size_t, float> rows[] = {{49, 1}, {50, 0}, {4024, 1}, {4025, 0}, {5011, 1}, {5012, 0.5f}};
    for (auto [element, value] : rows) {
        float actual;
        std::memcpy(&actual, &step.bytes[element * 4], 4);
        EXPECT_EQ(actual, value) << element;
    }
}

TEST(Synth, Bt601FullRangeOfPureColours)
{
    const int cases[][6] = {{0, 0, 0, 0, 128, 128},     {255, 255, 255, 255, 128, 128}, {255, 0, 0, 76, 85, 255},
                            {0, 255, 0, 150, 44, 21},   {0, 0, 255, 29, 255, 107}};  // r g b -> y cb cr
    for (const int* k : cases) {
        RgbImage flat{4, 2, {}};
        for (int i = 0; i < 24; ++i) flat.rgb.push_back(static_cast<uint8_t>(k[i % 3]));
        Nv12Image nv12 = rgbToNv12(flat);
        EXPECT_EQ(nv12.stride, 16);
        EXPECT_EQ((std::vector<int>{nv12.view().y(3, 1), nv12.view().cb(1, 0), nv12.view().cr(1, 0)}),
                  (std::vector<int>{k[3], k[4], k[5]}));
        RgbImage back = nv12ToRgb(nv12.view());
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(back.rgb[i], k[i], 2);
    }
}

TEST(Synth, PsnrOverMaskedColumns)
{
    std::vector<uint8_t> a(64 * 8), b;
    for (size_t i = 0; i < a.size(); ++i) a[i] = static_cast<uint8_t>(i * 7);
    b = a;
    PlaneView pa{a.data(), 64, 8, 64}, pb{b.data(), 64, 8, 64};
    EXPECT_TRUE(std::isinf(psnr(pa, pb, {})));
    // Four pixels off by 10 in a 10-column mask of 8 rows: MSE = 4 * 100 / 80.
    std::vector<uint8_t> mask(64, 0);
    std::fill(mask.begin() + 20, mask.begin() + 30, 1);
    for (int row : {0, 2, 4, 6}) b[row * 64 + 25] = static_cast<uint8_t>(b[row * 64 + 25] + 10);
    b[3 * 64 + 40] = 0;  // outside the mask
    EXPECT_NEAR(psnr(pa, pb, mask), 10 * std::log10(255.0 * 255.0 / 5.0), 1e-9);
}
