// Real rigs end to end on the real driver: camera images rendered from a scene through OpenCV
// models, calibrated (from the true rotations, or from perturbed ones refined on the images),
// stitched by the library, and compared with the scene seen directly. Against an exact per-pixel
// remap of the same images, the library may lose no more than 1 dB of Y PSNR from the true rig
// (only the mesh step's interpolation may cost anything), 1.5 dB from the refined one.
#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <chrono>
#include <cstdio>

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

zqavs_calib::RigCalibration calibrated(const Rig& rig)
{
    zqavs_calib::RigCalibration calib;
    std::string error;
    EXPECT_TRUE(zqavs_calib::calibrateRig(rig, &calib, &error)) << error;
    return calib;
}

struct RealRig {
    const char* name;
    Rig (*rig)();
    uint64_t seed;  // of the perturbation and the textured scene the refinement sees
};

class CalibRoundTrip : public testing::TestWithParam<RealRig> {};

TEST_P(CalibRoundTrip, TrueAndRefinedRigsStitchCloseToTheExactRemap)
{
    const RealRig& param = GetParam();
    const Rig truth = param.rig();
    const zqavs_calib::RigCalibration truthCalib = calibrated(truth);
    const zqavs_synth::RgbImage builtin = zqavs_synth::makeBuiltinScene(1440, 720);
    const rig_test::Psnrs direct =
        rig_test::panoramaPsnrs(truth, truthCalib, truthCalib, builtin, rig_test::renderViews(truth, builtin));
    printf("[ roundtrip ] %s: Y PSNR library %.2f dB, exact remap %.2f dB; mesh error max %.3f mean %.3f px\n",
           param.name, direct.library, direct.exact, truthCalib.meshError.max, truthCalib.meshError.mean);
    // The renderer and the remap must agree closely, or the comparison proves nothing.
    EXPECT_GT(direct.exact, 25.0);
    EXPECT_GE(direct.library, direct.exact - 1.0);

    const Rig given = perturbed(truth, param.seed);
    const zqavs_synth::RgbImage textured = rig_test::makeTexturedScene(1440, 720, param.seed);
    const rig_test::Views views = rig_test::renderViews(truth, textured);
    zqavs_calib::RigRefinement refined;
    std::string error;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(zqavs_calib::refineRig(given, views.y, &refined, &error)) << error;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printf("[ refine ] %s in %.2f s\n%s", param.name, seconds, zqavs_calib::refinementReport(refined).c_str());
    EXPECT_TRUE(refined.warnings.empty());
    for (size_t c = 0; c < truth.cameras.size(); ++c)
        EXPECT_LT(angleDeg(refined.rig.cameras[c].R, truth.cameras[c].R), 0.05)
            << "camera " << c << ", given " << angleDeg(given.cameras[c].R, truth.cameras[c].R) << " degrees off";
    const rig_test::Psnrs afterRefine =
        rig_test::panoramaPsnrs(truth, calibrated(truth), calibrated(refined.rig), textured, views);
    printf("[ refine ] %s: Y PSNR refined rig %.2f dB, exact remap with the true rig %.2f dB\n", param.name,
           afterRefine.library, afterRefine.exact);
    EXPECT_GE(afterRefine.library, afterRefine.exact - 1.5);
}

INSTANTIATE_TEST_SUITE_P(Rigs, CalibRoundTrip,
                         testing::Values(RealRig{"fisheye360", rig_test::fisheyeRing, 11},
                                         RealRig{"pinholeDistorted", rig_test::pinholeFan, 12}),
                         [](const testing::TestParamInfo<RealRig>& info) { return std::string(info.param.name); });

// Rigs the layout must refuse, each with the words its message must hold.
TEST(CalibLayout, RefusesRigsItCannotStitch)
{
    const struct {
        const char* what;
        void (*spoil)(Rig*);
        const char* expected;
    } cases[] = {
        {"gap between cameras",
         [](Rig* r) { r->cameras[2] = rig_test::camera(zqavs_calib::LensModel::Pinhole, 100, 200, {}); },
         "seen by no camera: lower hfov_deg"},
        {"rows beyond the images", [](Rig* r) { r->panorama.vfov_deg = 100; }, "lower vfov_deg"},
        {"file order against the geometry", [](Rig* r) { std::swap(r->cameras[1].R, r->cameras[2].R); },
         "cameras 0 and 2 are neighbours"},
        {"overlap narrower than the pyramid needs",
         [](Rig* r) { r->panorama.bands = 6, r->panorama.seam_width = 256; }, "lower bands"},
    };
    for (const auto& c : cases) {
        Rig rig = rig_test::pinholeFan();
        c.spoil(&rig);
        zqavs_calib::RigCalibration calib;
        std::string error;
        EXPECT_FALSE(zqavs_calib::calibrateRig(rig, &calib, &error)) << c.what;
        EXPECT_NE(error.find(c.expected), std::string::npos) << c.what << ": " << error;
    }
}

// Images that cannot be trusted: pairs without texture fall back to the given rotations with a
// warning, or fail when nothing is left; images that do not fit the rig are refused.
TEST(RigRefine, FallsBackOrRefusesImagesItCannotUse)
{
    const struct {
        const char* what;
        void (*spoil)(std::vector<cv::Mat>*);
        bool refined;
        const char* expected;
    } cases[] = {
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
    const rig_test::Views views = rig_test::renderViews(truth, rig_test::makeTexturedScene(1440, 720, 3));
    for (const auto& c : cases) {
        std::vector<cv::Mat> images;
        for (const cv::Mat& y : views.y) images.push_back(y.clone());
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
