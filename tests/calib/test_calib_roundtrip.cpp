// Real rigs end to end on the real driver: camera images rendered from a scene through OpenCV
// models, calibrated, stitched by the library, and compared with the scene seen directly. The
// library may lose no more than 1 dB of Y PSNR against an exact per-pixel remap of the same
// images: only the mesh step's interpolation may cost anything.
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstdio>

#include "gpu/stitch_fixture.h"
#include "rig.h"
#include "rig_layout.h"
#include "scene_render.h"

namespace {

using zqavs_calib::CameraSpec;
using zqavs_calib::Rig;

constexpr double kPi = 3.14159265358979323846;

// A camera whose optical axis points at azimuth `yaw_deg` on the horizon.
CameraSpec camera(zqavs_calib::LensModel model, double yaw_deg, double focal, std::vector<double> D)
{
    CameraSpec cam;
    cam.model = model;
    cam.image_width = 320;
    cam.image_height = 240;
    cam.K = cv::Matx33d(focal, 0, 159.5, 0, focal, 119.5, 0, 0, 1);
    cam.D = std::move(D);
    const double a = yaw_deg * kPi / 180.0;
    cam.R = cv::Matx33d(std::cos(a), 0, -std::sin(a), 0, 1, 0, std::sin(a), 0, std::cos(a));
    return cam;
}

// Three fisheyes around the horizon; camera 0 looks at the panorama's edge, so it owns both
// ends and every seam, the wrap-around one included, is blended.
Rig fisheyeRing()
{
    Rig rig;
    rig.panorama = {zqavs_calib::Projection::Equirectangular, 768, 192, 360.0, 80.0, 0.0, 16, 64, 3,
                    zqavs_synth::AlphaType::U8};
    const std::vector<double> D{0.02, -0.01, 0.003, -0.001};
    for (double yaw : {180.0, -60.0, 60.0}) rig.cameras.push_back(camera(zqavs_calib::LensModel::Fisheye, yaw, 95, D));
    return rig;
}

// Three pinholes with barrel distortion side by side on a cylinder.
Rig pinholeFan()
{
    Rig rig;
    rig.panorama = {zqavs_calib::Projection::Cylindrical, 640, 160, 140.0, 40.0, 0.0, 16, 64, 3,
                    zqavs_synth::AlphaType::Float};
    const std::vector<double> D{-0.15, 0.03, 0.001, -0.001, 0.0};
    for (double yaw : {-40.0, 0.0, 40.0}) rig.cameras.push_back(camera(zqavs_calib::LensModel::Pinhole, yaw, 200, D));
    return rig;
}

cv::Mat lumaOf(const zqavs_synth::RgbImage& image)
{
    const zqavs_synth::Nv12Image nv12 = zqavs_synth::rgbToNv12(image);
    return cv::Mat(image.height, image.width, CV_8UC1, const_cast<uint8_t*>(nv12.data.data()), nv12.stride).clone();
}

zqavs_synth::PlaneView planeOf(const cv::Mat& y)
{
    return {y.data, y.cols, y.rows, static_cast<int>(y.step)};
}

// Every panorama pixel sampled bilinearly from the camera that owns its column, at exactly
// where the camera's model puts its ray.
cv::Mat exactRemap(const Rig& rig, const zqavs_calib::RigCalibration& calib, const std::vector<cv::Mat>& cameraY)
{
    const zqavs_calib::PanoramaSpec& pano = rig.panorama;
    cv::Mat out(pano.height, pano.width, CV_8UC1, cv::Scalar(0));
    for (size_t c = 0; c < rig.cameras.size(); ++c) {
        std::vector<cv::Vec3d> rays;
        std::vector<cv::Point> where;
        for (int v = 0; v < pano.height; ++v)
            for (int u = 0; u < pano.width; ++u)
                if (zqavs_calib::columnOwner(calib, u) == static_cast<int>(c)) {
                    rays.push_back(zqavs_calib::panoramaRay(pano, u, v));
                    where.emplace_back(u, v);
                }
        std::vector<cv::Point2d> pixels;
        std::vector<uint8_t> visible;
        zqavs_calib::projectDirections(rig.cameras[c], rays, &pixels, &visible);
        cv::Mat map(pano.height, pano.width, CV_32FC2, cv::Scalar(0, 0));
        cv::Mat owned(pano.height, pano.width, CV_8UC1, cv::Scalar(0));
        for (size_t i = 0; i < where.size(); ++i) {
            map.at<cv::Vec2f>(where[i]) = cv::Vec2f(static_cast<float>(pixels[i].x), static_cast<float>(pixels[i].y));
            owned.at<uint8_t>(where[i]) = 255;
        }
        cv::Mat sampled;
        cv::remap(cameraY[c], sampled, map, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
        sampled.copyTo(out, owned);
    }
    return out;
}

cv::Mat stitch(const zqavs_calib::RigCalibration& calib, const std::string& dir,
               const std::vector<zqavs_synth::Nv12Image>& inputs)
{
    zqavs::StitchSetup setup;
    setup.calibDir = dir;
    setup.rig = calib.calibration.rig;
    zqavs::StitchSession session;
    std::string error;
    EXPECT_TRUE(session.init(setup, &error)) << error;
    if (!error.empty()) return cv::Mat();
    for (size_t c = 0; c < inputs.size(); ++c) session.setInput(static_cast<int>(c), inputs[c]);
    double ms = 0.0;
    EXPECT_TRUE(session.frame(&ms, &error)) << error;
    const zqavs_synth::Nv12View view = session.outputView();
    return cv::Mat(view.height, view.width, CV_8UC1, const_cast<uint8_t*>(view.data), view.stride).clone();
}

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
    const cv::Mat stitched = stitch(calib, dir.path, inputs);
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
                         testing::Values(RoundTrip{"fisheye360", fisheyeRing}, RoundTrip{"pinholeDistorted", pinholeFan}),
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
