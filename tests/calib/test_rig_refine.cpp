// Rotations recovered from the cameras' own images: rigs rendered with their true rotations,
// refined from perturbed ones, then stitched by the library and compared with an exact remap
// through the true models.
#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <chrono>
#include <cstdio>

#include "gpu/stitch_fixture.h"
#include "rig_fixture.h"
#include "rig_refine.h"
#include "scene_render.h"

namespace {

using zqavs_calib::Rig;

constexpr double kDegree = 3.14159265358979323846 / 180.0;

double angleDeg(const cv::Matx33d& a, const cv::Matx33d& b)
{
    cv::Vec3d v;
    cv::Rodrigues(a * b.t(), v);
    return cv::norm(v) / kDegree;
}

// Every camera but the anchor turned by 2 to 5 degrees about a random axis.
Rig perturbed(Rig rig, uint64_t seed)
{
    cv::RNG rng(seed);
    for (size_t c = 1; c < rig.cameras.size(); ++c) {
        const cv::Vec3d axis = cv::normalize(cv::Vec3d(rng.gaussian(1), rng.gaussian(1), rng.gaussian(1)));
        cv::Matx33d turn;
        cv::Rodrigues(axis * rng.uniform(2.0, 5.0) * kDegree, turn);
        rig.cameras[c].R = turn * rig.cameras[c].R;
    }
    return rig;
}

std::vector<zqavs_synth::RgbImage> renderViews(const Rig& rig, uint64_t seed)
{
    const zqavs_synth::RgbImage scene = rig_test::makeTexturedScene(1440, 720, seed);
    std::vector<zqavs_synth::RgbImage> views;
    for (const zqavs_calib::CameraSpec& cam : rig.cameras) views.push_back(zqavs_calib::renderCameraImage(cam, scene));
    return views;
}

std::vector<cv::Mat> lumas(const std::vector<zqavs_synth::RgbImage>& views)
{
    std::vector<cv::Mat> out;
    for (const zqavs_synth::RgbImage& view : views) out.push_back(rig_test::lumaOf(view));
    return out;
}

struct Recovery {
    const char* name;
    Rig (*rig)();
    uint64_t seed;
};

void PrintTo(const Recovery& r, std::ostream* out)
{
    *out << r.name;
}

class RigRefine : public testing::TestWithParam<Recovery> {};

TEST_P(RigRefine, RecoversRotationsAndStitchesLikeTheTrueRig)
{
    const Rig truth = GetParam().rig();
    const Rig given = perturbed(truth, GetParam().seed);
    const std::vector<zqavs_synth::RgbImage> views = renderViews(truth, GetParam().seed);
    const std::vector<cv::Mat> cameraY = lumas(views);

    zqavs_calib::RigRefinement refined;
    std::string error;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(zqavs_calib::refineRig(given, cameraY, &refined, &error)) << error;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printf("[ refine ] %s in %.2f s\n%s", GetParam().name, seconds, zqavs_calib::refinementReport(refined).c_str());
    EXPECT_TRUE(refined.warnings.empty());
    for (size_t c = 0; c < truth.cameras.size(); ++c) {
        const double before = angleDeg(given.cameras[c].R, truth.cameras[c].R);
        const double after = angleDeg(refined.rig.cameras[c].R, truth.cameras[c].R);
        printf("[ refine ] camera %zu: error %.3f -> %.4f degrees\n", c, before, after);
        EXPECT_LT(after, 0.05) << "camera " << c;
    }

    zqavs_calib::RigCalibration trueCalib, refinedCalib;
    ASSERT_TRUE(zqavs_calib::calibrateRig(truth, &trueCalib, &error)) << error;
    ASSERT_TRUE(zqavs_calib::calibrateRig(refined.rig, &refinedCalib, &error)) << error;
    stitch_test::TempDir dir;
    ASSERT_TRUE(zqavs_synth::writeCalibration(refinedCalib.calibration, dir.path, &error)) << error;
    std::vector<zqavs_synth::Nv12Image> inputs;
    for (const zqavs_synth::RgbImage& view : views) inputs.push_back(zqavs_synth::rgbToNv12(view));
    const cv::Mat stitched = rig_test::stitch(refinedCalib, dir.path, inputs);
    ASSERT_FALSE(stitched.empty());
    const cv::Mat scene = rig_test::lumaOf(zqavs_calib::renderPanorama(
        truth.panorama, rig_test::makeTexturedScene(1440, 720, GetParam().seed)));
    const double exact = zqavs_synth::psnr(rig_test::planeOf(rig_test::exactRemap(truth, trueCalib, cameraY)),
                                           rig_test::planeOf(scene), {});
    const double library = zqavs_synth::psnr(rig_test::planeOf(stitched), rig_test::planeOf(scene), {});
    printf("[ refine ] %s: Y PSNR refined rig %.2f dB, exact remap with the true rig %.2f dB\n", GetParam().name,
           library, exact);
    EXPECT_GE(library, exact - 1.5);
}

INSTANTIATE_TEST_SUITE_P(Rigs, RigRefine,
                         testing::Values(Recovery{"fisheye360", rig_test::fisheyeRing, 11},
                                         Recovery{"pinholeDistorted", rig_test::pinholeFan, 12}),
                         [](const testing::TestParamInfo<Recovery>& info) { return std::string(info.param.name); });

// Images that cannot be trusted: pairs without texture fall back to the given rotations with a
// warning, or fail when nothing is left; images that do not fit the rig are refused.
TEST(RigRefine, FallsBackOrRefusesImagesItCannotUse)
{
    struct Case {
        const char* what;
        void (*spoil)(std::vector<cv::Mat>*);
        bool refined;
        const char* expected;
    };
    const Case cases[] = {
        {"camera 2 featureless", [](std::vector<cv::Mat>* y) { (*y)[2].setTo(128); }, true,
         "camera 2 keeps its given rotation"},
        {"camera 1 featureless", [](std::vector<cv::Mat>* y) { (*y)[1].setTo(128); }, false,
         "no pair of neighbouring cameras"},
        {"an image missing", [](std::vector<cv::Mat>* y) { y->pop_back(); }, false, "2 images for 3 cameras"},
        {"an image too small", [](std::vector<cv::Mat>* y) { (*y)[1] = (*y)[1](cv::Rect(0, 0, 100, 80)).clone(); },
         false, "camera 1: the image is 100x80"},
    };
    const Rig truth = rig_test::pinholeFan();
    const Rig given = perturbed(truth, 3);
    const std::vector<cv::Mat> cameraY = lumas(renderViews(truth, 3));
    for (const Case& c : cases) {
        std::vector<cv::Mat> images;
        for (const cv::Mat& y : cameraY) images.push_back(y.clone());
        c.spoil(&images);
        zqavs_calib::RigRefinement refined;
        std::string error;
        ASSERT_EQ(zqavs_calib::refineRig(given, images, &refined, &error), c.refined) << c.what << ": " << error;
        const std::string text = c.refined ? zqavs_calib::refinementReport(refined) : error;
        EXPECT_NE(text.find(c.expected), std::string::npos) << c.what << ": " << text;
        if (!c.refined) continue;
        EXPECT_EQ(refined.rig.cameras[2].R, given.cameras[2].R) << c.what;
        EXPECT_LT(angleDeg(refined.rig.cameras[1].R, truth.cameras[1].R), 0.05) << c.what;
    }
}

}  // namespace
