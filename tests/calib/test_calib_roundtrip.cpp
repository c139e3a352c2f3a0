// Real rigs end to end on the real driver: camera images rendered from a scene through OpenCV
// models, calibrated, stitched by the library, and compared with the scene seen directly. The
// library may lose no more than 1 dB of Y PSNR against an exact per-pixel remap of the same
// images: only the mesh step's interpolation may cost anything.
#include <gtest/gtest.h>

#include <cstdio>

#include "gpu/stitch_fixture.h"
#include "rig_fixture.h"
#include "scene_render.h"

namespace {

using rig_test::camera;
using rig_test::exactRemap;
using rig_test::lumaOf;
using rig_test::pinholeFan;
using rig_test::planeOf;
using zqavs_calib::CameraSpec;
using zqavs_calib::Rig;

struct RoundTrip {
    const char* name;
    Rig (*rig)();
};

void PrintTo(const RoundTrip& trip, std::ostream* out)
{
    *out << trip.name;
}

class CalibRoundTrip : public testing::TestWithParam<RoundTrip> {};

TEST_P(CalibRoundTrip, StitchedYIsWithinOneDbOfTheExactRemap)
{
    const Rig rig = GetParam().rig();
    zqavs_calib::RigCalibration calib;
    std::string error;
    ASSERT_TRUE(zqavs_calib::calibrateRig(rig, &calib, &error)) << error;
    stitch_test::TempDir dir;
    ASSERT_TRUE(zqavs_synth::writeCalibration(calib.calibration, dir.path, &error)) << error;

    const zqavs_synth::RgbImage scene = zqavs_synth::makeBuiltinScene(1440, 720);
    std::vector<zqavs_synth::Nv12Image> inputs;
    std::vector<cv::Mat> cameraY;
    for (const CameraSpec& cam : rig.cameras) {
        const zqavs_synth::RgbImage image = zqavs_calib::renderCameraImage(cam, scene);
        inputs.push_back(zqavs_synth::rgbToNv12(image));
        cameraY.push_back(lumaOf(image));
    }
    const cv::Mat truth = lumaOf(zqavs_calib::renderPanorama(rig.panorama, scene));
    const cv::Mat remapped = exactRemap(rig, calib, cameraY);
    const cv::Mat stitched = rig_test::stitch(calib, dir.path, inputs);
    ASSERT_FALSE(stitched.empty());

    const double exact = zqavs_synth::psnr(planeOf(remapped), planeOf(truth), {});
    const double library = zqavs_synth::psnr(planeOf(stitched), planeOf(truth), {});
    printf("[ roundtrip ] %s: Y PSNR library %.2f dB, exact remap %.2f dB; mesh error max %.3f mean %.3f px\n",
           GetParam().name, library, exact, calib.meshError.max, calib.meshError.mean);
    RecordProperty("psnr_library_db", std::to_string(library));
    RecordProperty("psnr_exact_remap_db", std::to_string(exact));
    RecordProperty("mesh_error_max_px", std::to_string(calib.meshError.max));
    // The renderer and the remap must agree closely, or the comparison below proves nothing.
    EXPECT_GT(exact, 25.0);
    EXPECT_GE(library, exact - 1.0);
}

INSTANTIATE_TEST_SUITE_P(Rigs, CalibRoundTrip,
                         testing::Values(RoundTrip{"fisheye360", rig_test::fisheyeRing},
                                         RoundTrip{"pinholeDistorted", pinholeFan}),
                         [](const testing::TestParamInfo<RoundTrip>& info) { return std::string(info.param.name); });

// Rigs the layout must refuse, each with the words its message must hold.
TEST(CalibLayout, RefusesRigsItCannotStitch)
{
    struct Case {
        const char* what;
        void (*spoil)(Rig*);
        const char* expected;
    };
    const Case cases[] = {
        {"gap between cameras", [](Rig* r) { r->cameras[2] = camera(zqavs_calib::LensModel::Pinhole, 100, 200, {}); },
         "seen by no camera: lower hfov_deg"},
        {"rows beyond the images", [](Rig* r) { r->panorama.vfov_deg = 100; }, "lower vfov_deg"},
        {"file order against the geometry", [](Rig* r) { std::swap(r->cameras[1].R, r->cameras[2].R); },
         "cameras 0 and 2 are neighbours"},
        {"overlap narrower than the pyramid needs",
         [](Rig* r) {
             r->panorama.bands = 6;
             r->panorama.seam_width = 256;
         },
         "lower bands"},
    };
    for (const Case& c : cases) {
        Rig rig = pinholeFan();
        c.spoil(&rig);
        zqavs_calib::RigCalibration calib;
        std::string error;
        EXPECT_FALSE(zqavs_calib::calibrateRig(rig, &calib, &error)) << c.what;
        EXPECT_NE(error.find(c.expected), std::string::npos) << c.what << ": " << error;
    }
}

}  // namespace
