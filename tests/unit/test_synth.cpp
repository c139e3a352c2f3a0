// The synthetic calibration generator: layouts the blend planning accepts, meshes that stay on
// the camera images and mean what the remap makes of them, file formats, colour and metrics.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

#include "zqavs_synth.h"
#include "zqgfx_gpu_avs_internal.h"

using namespace zqavs_synth;

namespace {

RigConfig smallRig(int cameras)
{
    RigConfig rig;
    rig.cameras = cameras;
    rig.src_width = 320;
    rig.src_height = 180;
    rig.bld_width = 256 * cameras;
    rig.bld_height = 160;
    rig.overlap_width = 32;
    rig.band_num = 2;
    return rig;
}

Calibration generate(const RigConfig& rig)
{
    Calibration calib;
    std::string error;
    EXPECT_TRUE(generateCalibration(rig, &calib, &error)) << error;
    return calib;
}

// The blend planning of the library, restated from its rules: camera c is blended with its
// right-hand neighbour when one of its first two overlap blocks starts where one of the
// neighbour's does. Returns the neighbour's block each blended camera takes, or -1.
std::vector<int> plannedBlocks(const PSR_INITPARAMS_T& layout)
{
    const int n = layout.camera_num;
    std::vector<int> taken(n, -1);
    if (n == 2) {
        int p = layout.overlap_block[0].overlap_num, q = layout.overlap_block[1].overlap_num;
        if (p == 1 && q == 1) taken[0] = 0;  // camera 0 takes its own block 0
        if (p == 2 && q == 2) taken = {0, 1};
        return taken;
    }
    for (int c = 0; c < n; ++c) {
        const PSR_OVERLAP_BLOCK& own = layout.overlap_block[c];
        const PSR_OVERLAP_BLOCK& next = layout.overlap_block[(c + 1) % n];
        int p = own.overlap_num, q = next.overlap_num;
        if (p < 1 || p > 2 || q < 1) continue;
        auto starts = [&](int column) { return std::count(own.dst_startx.begin(), own.dst_startx.begin() + p, column) > 0; };
        if (starts(next.dst_startx[0]))
            taken[c] = 0;
        else if (q == 2 && starts(next.dst_startx[1]))
            taken[c] = 1;
    }
    return taken;
}

double sampleBilinearY(const Nv12View& image, double x, double y)
{
    x = std::clamp(x, 0.0, image.width - 1.0);
    y = std::clamp(y, 0.0, image.height - 1.0);
    int x0 = std::min(static_cast<int>(x), image.width - 2), y0 = std::min(static_cast<int>(y), image.height - 2);
    double ax = x - x0, ay = y - y0;
    double top = image.y(x0, y0) * (1 - ax) + image.y(x0 + 1, y0) * ax;
    double bottom = image.y(x0, y0 + 1) * (1 - ax) + image.y(x0 + 1, y0 + 1) * ax;
    return top * (1 - ay) + bottom * ay;
}

// What the remap draws for one block: the mesh interpolated at each output pixel centre gives a
// source position in pixel index units, sampled bilinearly.
void remapBlockY(const Calibration& calib, const Nv12View& camera, const BlockMesh& mesh, int startx, int width,
                 std::vector<uint8_t>* out)
{
    const int sx = calib.rig.step_x, sy = calib.rig.step_y, W = calib.rig.bld_width;
    for (int row = 0; row < calib.rig.bld_height; ++row) {
        for (int j = 0; j < width; ++j) {
            double ex = j + 0.5, ey = row + 0.5;
            int c = std::min(static_cast<int>(ex / sx), mesh.width - 2), r = std::min(static_cast<int>(ey / sy), mesh.height - 2);
            double fx = ex / sx - c, fy = ey / sy - r;
            auto lerp2 = [&](const std::vector<float>& v) {
                auto at = [&](int cc, int rr) { return static_cast<double>(v[static_cast<size_t>(rr) * mesh.width + cc]); };
                return (at(c, r) * (1 - fx) + at(c + 1, r) * fx) * (1 - fy) + (at(c, r + 1) * (1 - fx) + at(c + 1, r + 1) * fx) * fy;
            };
            (*out)[static_cast<size_t>(row) * W + startx + j] =
                static_cast<uint8_t>(std::lround(sampleBilinearY(camera, lerp2(mesh.x), lerp2(mesh.y))));
        }
    }
}

struct TempDir {
    std::filesystem::path path;
    TempDir()
    {
        char name[] = "/tmp/zqavs_synth_XXXXXX";
        path = mkdtemp(name);
    }
    ~TempDir() { std::filesystem::remove_all(path); }
};

std::vector<char> readAll(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(Synth, LayoutTilesThePanoramaAndBlendsEverySeamButTheWrap)
{
    for (int n : {1, 2, 4, 10}) {
        SCOPED_TRACE(n);
        RigConfig rig = smallRig(n);
        Calibration calib = generate(rig);
        const PSR_INITPARAMS_T& layout = calib.layout;
        std::vector<int> nonoverlapCover(rig.bld_width, 0), overlapCover(rig.bld_width, 0);
        for (int c = 0; c < n; ++c) {
            const PSR_NONOVERLAP_BLOCK& nb = layout.nonoverlap_block[c];
            const PSR_OVERLAP_BLOCK& ob = layout.overlap_block[c];
            ASSERT_EQ(nb.nonoverlap_num, 1);
            EXPECT_EQ(ob.overlap_num, n == 1 ? 0 : (c == 0 || c == n - 1 ? 1 : 2));
            EXPECT_EQ(layout.image_block_num[c], 1 + ob.overlap_num);
            EXPECT_EQ(nb.dst_startx[0] % rig.step_x, 0);
            EXPECT_EQ(nb.mesh_width[0], nb.dst_width[0] / rig.step_x + 1);
            EXPECT_EQ(nb.mesh_height[0], rig.bld_height / rig.step_y + 1);
            for (int x = nb.dst_startx[0]; x < nb.dst_startx[0] + nb.dst_width[0]; ++x) nonoverlapCover[x]++;
            for (int b = 0; b < ob.overlap_num; ++b) {
                EXPECT_EQ(ob.dst_width[b], rig.overlap_width);
                EXPECT_EQ(ob.alpha_width[b], rig.overlap_width);
                EXPECT_EQ(ob.alpha_height[b], rig.bld_height);
                EXPECT_EQ(ob.band_num[b], rig.band_num);
                for (int x = ob.dst_startx[b]; x < ob.dst_startx[b] + ob.dst_width[b]; ++x) overlapCover[x]++;
            }
            // A middle camera lists its left overlap first.
            if (ob.overlap_num == 2) {
                EXPECT_LT(ob.dst_startx[0], ob.dst_startx[1]);
            }
            ASSERT_EQ(calib.meshes[c].size(), static_cast<size_t>(layout.image_block_num[c]));
        }
        // Every column belongs to exactly one camera alone, or to exactly two overlap blocks.
        for (int x = 0; x < rig.bld_width; ++x)
            ASSERT_TRUE((nonoverlapCover[x] == 1 && overlapCover[x] == 0) || (nonoverlapCover[x] == 0 && overlapCover[x] == 2)) << x;

        std::vector<int> taken = plannedBlocks(layout);
        ASSERT_EQ(calib.seams.size(), static_cast<size_t>(n - 1));
        ASSERT_EQ(calib.alphas.size(), calib.seams.size());
        for (int c = 0; c < n; ++c) {
            if (c == n - 1) {
                EXPECT_EQ(taken[c], -1) << "the last camera does not wrap to camera 0";
                continue;
            }
            ASSERT_GE(taken[c], 0) << "camera " << c << " is not blended";
            const PSR_OVERLAP_BLOCK& source = layout.overlap_block[n == 2 ? 0 : c + 1];
            EXPECT_EQ(source.dst_startx[taken[c]], calib.seams[c].startx);
            EXPECT_EQ(calib.alphas[c].camera, c);
            EXPECT_EQ(calib.alphas[c].next, c + 1);
        }
    }
}

TEST(Synth, MeshNodesStayOnTheSourceImage)
{
    for (int n : {1, 2, 4, 10}) {
        RigConfig rig = smallRig(n);
        rig.edge_margin_px = 1.0;  // the least allowed
        Calibration calib = generate(rig);
        for (int c = 0; c < n; ++c) {
            for (const BlockMesh& mesh : calib.meshes[c]) {
                auto [xmin, xmax] = std::minmax_element(mesh.x.begin(), mesh.x.end());
                auto [ymin, ymax] = std::minmax_element(mesh.y.begin(), mesh.y.end());
                EXPECT_GE(*xmin, 0.0f) << n << "/" << c;
                EXPECT_LE(*xmax, rig.src_width - 1.0f) << n << "/" << c;
                EXPECT_GE(*ymin, 0.0f) << n << "/" << c;
                EXPECT_LE(*ymax, rig.src_height - 1.0f) << n << "/" << c;
                // Output rows go down the source image, output columns across it.
                EXPECT_LT(mesh.x[0], mesh.x[mesh.width - 1]);
                EXPECT_LT(mesh.y[0], mesh.y[static_cast<size_t>(mesh.height - 1) * mesh.width]);
            }
        }
    }
}

TEST(Synth, ProjectionRoundTripsAndMeshesFollowIt)
{
    Calibration calib = generate(smallRig(4));
    for (int c = 0; c < 4; ++c) {
        int first = 0, last = 0;
        cameraColumnRange(calib.layout, c, &first, &last);
        for (double px : {first + 0.25, (first + last) / 2.0, last - 1.5}) {
            for (double py : {0.0, 77.3, 159.0}) {
                double sx = 0, sy = 0, bx = 0, by = 0;
                ASSERT_TRUE(panoramaToCamera(calib.geometry, c, px, py, &sx, &sy));
                cameraToPanorama(calib.geometry, c, sx, sy, &bx, &by);
                EXPECT_NEAR(bx, px, 1e-6);
                EXPECT_NEAR(by, py, 1e-6);
            }
        }
        // Node (2, 3) of the non-overlap block stands for the output point at its edge position.
        const BlockMesh& mesh = calib.meshes[c][0];
        double sx = 0, sy = 0;
        int startx = calib.layout.nonoverlap_block[c].dst_startx[0];
        panoramaToCamera(calib.geometry, c, startx + 2 * 16 - 0.5, 3 * 16 - 0.5, &sx, &sy);
        EXPECT_NEAR(mesh.x[3 * mesh.width + 2], sx, 1e-3);
        EXPECT_NEAR(mesh.y[3 * mesh.width + 2], sy, 1e-3);
    }
    // The far end of the panorama lies behind camera 0.
    double sx = 0, sy = 0;
    EXPECT_FALSE(panoramaToCamera(calib.geometry, 0, calib.rig.bld_width - 1.0, 0, &sx, &sy));
}

TEST(Synth, RemappingTheCameraImagesThroughTheMeshesRebuildsTheScene)
{
    RigConfig rig = smallRig(3);
    rig.gains = {1.0, 1.0, 1.0};
    Calibration calib = generate(rig);
    RgbImage scene = makeScene(rig);
    Nv12Image expected = rgbToNv12(scene);
    std::vector<uint8_t> stitched(static_cast<size_t>(rig.bld_width) * rig.bld_height, 0);
    for (int c = 0; c < 3; ++c) {
        Nv12Image camera = renderCamera(calib, c, scene);
        // Each camera's non-overlap block, and the right half of the seam to its left.
        const PSR_NONOVERLAP_BLOCK& nb = calib.layout.nonoverlap_block[c];
        remapBlockY(calib, camera.view(), calib.meshes[c][0], nb.dst_startx[0], nb.dst_width[0], &stitched);
        if (c > 0) {
            const PSR_OVERLAP_BLOCK& ob = calib.layout.overlap_block[c];
            remapBlockY(calib, camera.view(), calib.meshes[c][1], ob.dst_startx[0], ob.dst_width[0], &stitched);
        }
    }
    PlaneView actual{stitched.data(), rig.bld_width, rig.bld_height, rig.bld_width};
    // Resampling twice costs some detail (about 44 dB here); sampling half a pixel off costs
    // 6 dB more, a flipped row order 30.
    EXPECT_GT(psnr(actual, lumaPlane(expected.view()), {}), 42.0);
}

TEST(Synth, ExposureGainScalesTheCameraImage)
{
    RigConfig rig = smallRig(2);
    rig.gains = {1.0, 0.5};
    rig.scene_image.width = rig.scene_image.height = 4;
    for (int i = 0; i < 16; ++i) rig.scene_image.rgb.insert(rig.scene_image.rgb.end(), {200, 100, 60});
    Calibration calib = generate(rig);
    RgbImage scene = makeScene(rig);
    ASSERT_EQ(scene.width, rig.bld_width);
    Nv12Image fullImage = renderCamera(calib, 0, scene);
    Nv12View full = fullImage.view();
    Nv12Image halfImage = renderCamera(calib, 1, scene);
    Nv12View half = halfImage.view();
    Yuv yuv = rgbToYuv(200, 100, 60), halved = rgbToYuv(100, 50, 30);
    EXPECT_EQ(full.y(160, 90), std::lround(yuv.y));
    EXPECT_EQ(half.y(160, 90), std::lround(halved.y));
    EXPECT_EQ(half.cr(80, 45), std::lround(halved.cr));
    EXPECT_EQ(full.stride, 320);
    EXPECT_EQ(halfImage.data.size(), 320u * 180 * 3 / 2);
}

TEST(Synth, AlphaMapLevelsSizesAndProfiles)
{
    EXPECT_EQ(alphaElementCount(100, 40, 3), 5250u);
    std::vector<LevelSize> sizes = alphaLevelSizes(101, 40, 4);
    EXPECT_EQ(sizes[2].width, 25);
    EXPECT_EQ(sizes[3].width, 12);
    EXPECT_EQ(sizes[3].height, 5);

    AlphaMap ramp = buildAlphaMap(0, 1, 100, 40, 3, AlphaType::U8, SeamProfile::LinearRamp);
    ASSERT_EQ(ramp.bytes.size(), 5250u);
    EXPECT_EQ(ramp.bytes[0], 254);  // side A at the left
    EXPECT_EQ(ramp.bytes[99], 1);   // side B at the right
    EXPECT_TRUE(std::is_sorted(ramp.bytes.rbegin() + 5250 - 100, ramp.bytes.rend()));
    EXPECT_EQ(ramp.bytes[39 * 100 + 7], ramp.bytes[7]);  // rows are alike

    AlphaMap step = buildAlphaMap(2, 3, 100, 40, 3, AlphaType::Float, SeamProfile::Step);
    ASSERT_EQ(step.bytes.size(), 5250u * 4);
    auto at = [&step](size_t element) {
        float value;
        std::memcpy(&value, &step.bytes[element * 4], 4);
        return value;
    };
    EXPECT_EQ(at(49), 1.0f);
    EXPECT_EQ(at(50), 0.0f);
    // Coarser levels are box reductions of the finer ones: the step stays sharp at width 50 and
    // softens to one half at width 25 (a re-evaluated profile would stay 0 or 1).
    const size_t level1 = 4000, level2 = 5000;
    EXPECT_EQ(at(level1 + 24), 1.0f);
    EXPECT_EQ(at(level1 + 25), 0.0f);
    EXPECT_EQ(at(level2 + 12), 0.5f);
    EXPECT_EQ(at(level2 + 11), 1.0f);
}

TEST(Synth, Bt601FullRangeOfPureColours)
{
    struct Case {
        uint8_t r, g, b;
        int y, cb, cr;
    } cases[] = {
        {0, 0, 0, 0, 128, 128},     {255, 255, 255, 255, 128, 128}, {255, 0, 0, 76, 85, 255},
        {0, 255, 0, 150, 44, 21},   {0, 0, 255, 29, 255, 107},
    };
    for (const Case& k : cases) {
        RgbImage flat;
        flat.width = 4;
        flat.height = 2;
        for (int i = 0; i < 8; ++i) flat.rgb.insert(flat.rgb.end(), {k.r, k.g, k.b});
        Nv12Image nv12 = rgbToNv12(flat);
        EXPECT_EQ(nv12.stride, 16);
        EXPECT_EQ(nv12.view().y(3, 1), k.y);
        EXPECT_EQ(nv12.view().cb(1, 0), k.cb);
        EXPECT_EQ(nv12.view().cr(1, 0), k.cr);
        RgbImage back = nv12ToRgb(nv12.view());
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(back.rgb[i], (&k.r)[i], 2);
    }
}

TEST(Synth, PsnrAndSeamStep)
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
    EXPECT_TRUE(std::isnan(psnr(pa, PlaneView{b.data(), 32, 8, 64}, {})));

    // Left half 100, right half 100 except rows 0..3 at 140.
    std::vector<uint8_t> seam(64 * 8, 100);
    for (int row = 0; row < 4; ++row) std::fill(&seam[row * 64 + 32], &seam[row * 64 + 64], 140);
    PlaneView ps{seam.data(), 64, 8, 64};
    EXPECT_DOUBLE_EQ(meanAbsStep(ps, 32), 20.0);
    EXPECT_DOUBLE_EQ(meanAbsStep(ps, 33), 0.0);
    EXPECT_TRUE(std::isnan(meanAbsStep(ps, 0)));
}

TEST(Synth, RefusesRigsItCannotBuild)
{
    auto refused = [](RigConfig rig) { return !validateRig(rig).empty(); };
    EXPECT_TRUE(validateRig(RigConfig()).empty()) << validateRig(RigConfig());
    RigConfig rig = smallRig(4);
    EXPECT_FALSE(refused(rig));
    rig.cameras = 11;
    EXPECT_TRUE(refused(rig));
    rig = smallRig(4);
    rig.overlap_width = 24;  // not a multiple of the step
    EXPECT_TRUE(refused(rig));
    rig.overlap_width = 256;  // leaves the middle cameras nothing of their own
    EXPECT_TRUE(refused(rig));
    rig = smallRig(4);
    rig.bld_height = 168;
    EXPECT_TRUE(refused(rig));
    rig = smallRig(4);
    rig.band_num = 6;  // 32 >> 6 == 0
    EXPECT_TRUE(refused(rig));
    rig = smallRig(1);
    rig.hfov_deg = 200;
    EXPECT_TRUE(refused(rig));
    rig = smallRig(3);
    rig.gains = {1.0, 1.0};
    EXPECT_TRUE(refused(rig));
    Calibration calib;
    std::string error;
    EXPECT_FALSE(generateCalibration(rig, &calib, &error));
    EXPECT_FALSE(error.empty());

    // Camera 1 block 10 and camera 11 block 0 would share one file name.
    PSR_INITPARAMS_T layout;
    layout.camera_num = 12;
    layout.image_block_num.assign(12, 3);
    layout.image_block_num[1] = 13;
    EXPECT_NE(findFileNameCollision(layout).find("zq_ps_gpu_meshx110.bin"), std::string::npos);
    layout.image_block_num[1] = 3;
    EXPECT_EQ(findFileNameCollision(layout), "");
}

TEST(Synth, CalibrationFilesAreReadBackByTheLibrary)
{
    RigConfig rig = smallRig(4);
    Calibration calib = generate(rig);
    TempDir dir;
    std::string error;
    ASSERT_TRUE(writeCalibration(calib, dir.path.string(), &error)) << error;

    std::vector<char> text = readAll(dir.path / "zq_ps_gpu_mesh_params.txt");
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(std::string(text.begin(), text.begin() + 15), "src_width 320\ns");
    EXPECT_EQ(text.back(), '\n');
    std::string all(text.begin(), text.end());
    EXPECT_NE(all.find("\ncamera_3: 2\nnonoverlap_num 1\noverlap_num 1\n"), std::string::npos);

    std::vector<char> meshx = readAll(dir.path / "zq_ps_gpu_meshx21.bin");
    ASSERT_EQ(meshx.size(), calib.meshes[2][1].x.size() * 4);
    EXPECT_EQ(std::memcmp(meshx.data(), calib.meshes[2][1].x.data(), meshx.size()), 0);
    EXPECT_EQ(readAll(dir.path / "zq_ps_gpu_alpha23.bin").size(), alphaElementCount(32, 160, 3));
    EXPECT_FALSE(std::filesystem::exists(dir.path / "zq_ps_gpu_alpha30.bin"));

    PSR_INITPARAMS_T read;
    ASSERT_EQ(readTxtParamsAVS(dir.path.string() + "/zq_ps_gpu_mesh_params.txt", &read), 1);
    ASSERT_EQ(read.image_block_num.size(), 4u);
    ASSERT_EQ(read.nonoverlap_block.size() + read.overlap_block.size(), 8u);
    read.camera_num = 4;  // the file does not hold the camera count
    EXPECT_EQ(paramsFileText(read), paramsFileText(calib.layout));
    EXPECT_EQ(read.overlap_block[1].alpha_height, calib.layout.overlap_block[1].alpha_height);
}

TEST(Synth, BufferModeRecordsPointAtLiveMemory)
{
    RigConfig rig = smallRig(3);
    rig.alpha_type = AlphaType::Float;
    Calibration calib = generate(rig);
    BufferModeCalibration built;
    std::string error;
    ASSERT_TRUE(built.build(calib, true, &error)) << error;
    BufferModeCalibration buffers = std::move(built);  // records must survive a move
    ZQGFX_AVS_CONTEXT_T context = makeContext(rig, false);
    buffers.attach(&context);
    EXPECT_EQ(context.useMeshBufAddress, 1u);
    EXPECT_EQ(context.useSync, 1u);
    EXPECT_EQ(context.avsAlphaType, FUSE_GPU_ALPHA_FLOAT);
    EXPECT_EQ(context.outputBufferWidth, 768u);
    const auto* params = static_cast<PSR_INITPARAMS_T*>(context.AVS_initParams);
    EXPECT_EQ(params->output_image_stride, 768u);
    EXPECT_EQ(params->image_stride, 320);
    EXPECT_EQ(params->image_formate, PSR_TYPE_YUV420SP);

    // Mesh order: camera by camera, non-overlap blocks first.
    ASSERT_EQ(buffers.mesh_pointers.size(), 7u);  // 2 + 3 + 2 blocks
    const auto* mesh = static_cast<PSR_REMAP_MESH*>(context.avsRemapMeshArray[3]);
    EXPECT_EQ(mesh->meshIndex, 3);
    EXPECT_EQ(mesh->meshWidth_, calib.meshes[1][1].width);
    EXPECT_EQ(std::memcmp(mesh->meshyBufAddr_, calib.meshes[1][1].y.data(), calib.meshes[1][1].y.size() * 4), 0);

    ASSERT_EQ(buffers.alpha_pointers.size(), 2u);
    const auto* alpha = static_cast<PSR_DRM_BUF_MSG_T*>(context.meshAlphaDrmBufMsgArray[1]);
    EXPECT_EQ(alpha->mem_offset, 0);
    EXPECT_EQ(alpha->mem_size, static_cast<int64_t>(alphaElementCount(32, 160, 3) * 4));
    EXPECT_GT(alpha->mem_fd, 0);
    EXPECT_EQ(std::memcmp(alpha->vir_addr, calib.alphas[1].bytes.data(), calib.alphas[1].bytes.size()), 0);

    SharedBuffer nv12;
    ASSERT_TRUE(allocateNv12(100, 50, &nv12, &error)) << error;
    EXPECT_EQ(nv12.size(), 112u * 50 * 3 / 2);
    EXPECT_GT(nv12.fd(), 0);
}
