// The rig model: the rig file's checks, the cameras' models both ways, and the scene renders.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/calib3d.hpp>

#include <cmath>
#include <functional>
#include <random>

#include "gpu/stitch_fixture.h"
#include "rig.h"
#include "scene_render.h"

namespace {

using nlohmann::json;
using zqavs_calib::CameraSpec;
using zqavs_calib::LensModel;

constexpr double kDeg = 3.14159265358979323846 / 180.0;

const cv::Matx33d kTilted = [] {
    cv::Matx33d R;
    cv::Rodrigues(cv::Vec3d(0.1, 0.7, -0.2), R);
    return R;
}();

json validRig()
{
    auto matrix = [](const cv::Matx33d& m) { return std::vector<double>(m.val, m.val + 9); };
    return json{
        {"panorama",
         {{"projection", "equirectangular"}, {"width", 1024}, {"height", 256}, {"hfov_deg", 360}, {"vfov_deg", 90},
          {"seam_width", 64}, {"bands", 3}}},
        {"cameras",
         {{{"model", "pinhole"}, {"intrinsics", "cam0.yml"}, {"R", matrix(cv::Matx33d::eye())}},
          {{"model", "fisheye"},
           {"image_width", 640},
           {"image_height", 480},
           {"K", {250, 0, 320.5, 0, 251, 239.5, 0, 0, 1}},
           {"D", {-0.02, 0.003, -0.0005, 0.00002}},
           {"R", matrix(kTilted)}}}},
    };
}

void writeIntrinsics(const std::string& path, int width, const char* model = "pinhole")
{
    cv::FileStorage fs(path, cv::FileStorage::WRITE);
    fs << "model" << model << "image_width" << width << "image_height" << 480;
    fs << "camera_matrix" << cv::Mat(cv::Matx33d(500, 0, 319.5, 0, 502, 241, 0, 0, 1));
    fs << "distortion_coefficients" << cv::Mat(cv::Matx<double, 5, 1>(-0.2, 0.05, 0.001, -0.002, 0.01));
}

bool sameCamera(const CameraSpec& a, const CameraSpec& b)
{
    return a.model == b.model && a.image_width == b.image_width && a.image_height == b.image_height &&
           a.K == b.K && a.D == b.D && a.R == b.R;
}

TEST(RigFile, RoundTripsAndRefusesBadFieldsNamingThem)
{
    stitch_test::TempDir dir;
    writeIntrinsics(dir.path + "/cam0.yml", 640);
    writeIntrinsics(dir.path + "/wide.yml", 800);
    writeIntrinsics(dir.path + "/fisheye.yml", 640, "fisheye");
    std::string error;
    zqavs_calib::Rig rig, again;
    ASSERT_TRUE(zqavs_calib::parseRig(validRig().dump(), dir.path, "rig.json", &rig, &error)) << error;
    EXPECT_EQ(rig.cameras[0].K(1, 1), 502);
    EXPECT_EQ(rig.cameras[0].D.size(), 5u);
    EXPECT_EQ(rig.panorama.step, 16);  // a default
    ASSERT_TRUE(zqavs_calib::parseRig(zqavs_calib::rigToJson(rig), "", "copy", &again, &error)) << error;
    EXPECT_EQ(zqavs_calib::rigToJson(again), zqavs_calib::rigToJson(rig));
    for (size_t c = 0; c < rig.cameras.size(); ++c) EXPECT_TRUE(sameCamera(again.cameras[c], rig.cameras[c])) << c;

    const struct {
        std::function<void(json&)> mutate;
        const char* expected;
    } cases[] = {
        {[](json& j) { j["panorama"].erase("width"); }, "rig.json: panorama.width: missing"},
        {[](json& j) { j["panorama"]["height"] = "256"; }, "panorama.height: expected a number"},
        {[](json& j) { j["panorama"]["height"] = 255; }, "panorama.height: must be positive and even"},
        {[](json& j) { j["panorama"]["width"] = 1000; }, "panorama.step:"},
        {[](json& j) { j["panorama"]["projection"] = "mercator"; }, "panorama.projection: unknown"},
        {[](json& j) { j["panorama"]["hfov_deg"] = 361; }, "panorama.hfov_deg:"},
        {[](json& j) { j["panorama"]["hfov_deg"] = 0; }, "panorama.hfov_deg:"},
        {[](json& j) { j["panorama"]["vfov_deg"] = 180; }, "panorama.vfov_deg:"},
        {[](json& j) { j["panorama"]["seam_width"] = 24; }, "panorama.seam_width:"},
        {[](json& j) { j["panorama"]["bands"] = 9; }, "panorama.bands:"},
        {[](json& j) { j["panorama"]["alpha"] = "u16"; }, "panorama.alpha:"},
        {[](json& j) { j["panorama"]["hfov"] = 90; }, "panorama.hfov: unknown key"},
        {[](json& j) { j["cameras"][1]["D"].push_back(0.0); },
         "rig.json: cameras[1].D: a fisheye model takes 4 coefficients, got 5"},
        {[](json& j) { j["cameras"][1]["model"] = "pinhole"; j["cameras"][1]["D"] = {0.1, 0, 0, 0, 0, 0}; },
         "cameras[1].D: a pinhole model takes 4, 5 or 8"},
        {[](json& j) { j["cameras"][1]["D"][2] = nullptr; }, "cameras[1].D[2]: expected a number"},
        {[](json& j) { j["cameras"][1]["model"] = "orthographic"; }, "cameras[1].model: unknown"},
        {[](json& j) { j["cameras"][1]["K"][1] = 0.5; }, "cameras[1].K:"},
        {[](json& j) { j["cameras"][1]["R"] = {1, 0, 0, 0, 1, 0, 0, 0, -1}; }, "cameras[1].R: not a rotation"},
        {[](json& j) { j["cameras"][1]["R"] = {1.01, 0, 0, 0, 1, 0, 0, 0, 1}; }, "cameras[1].R: not a rotation"},
        {[](json& j) { j["cameras"][1].erase("R"); }, "cameras[1].R: missing"},
        {[](json& j) { j["cameras"][1]["image_width"] = 800; }, "cameras[1]: image size 800x480 differs"},
        {[](json& j) { j["cameras"][1]["image_height"] = 481; }, "cameras[1].image_height: must be positive and even"},
        {[](json& j) { j["cameras"][0]["intrinsics"] = "wide.yml"; }, "cameras[1]: image size 640x480 differs"},
        {[](json& j) { j["cameras"][0]["intrinsics"] = "absent.yml"; }, "cameras[0].intrinsics: cannot read"},
        {[](json& j) { j["cameras"][0]["intrinsics"] = "fisheye.yml"; }, "fisheye model, but the rig says pinhole"},
        {[](json& j) { j["cameras"][0]["K"] = j["cameras"][1]["K"]; }, "cameras[0].K: give either intrinsics"},
        {[](json& j) { j["cameras"] = json::array(); }, "rig.json: cameras: expected an array of 1..10"},
        {[](json& j) { j = json::array(); }, "rig.json: expected a JSON object"},
    };
    for (const auto& c : cases) {
        json j = validRig();
        c.mutate(j);
        error.clear();
        EXPECT_FALSE(zqavs_calib::parseRig(j.dump(), dir.path, "rig.json", &rig, &error)) << c.expected;
        EXPECT_NE(error.find(c.expected), std::string::npos) << "expected '" << c.expected << "' in: " << error;
    }
    // Text no JSON value can stand for: refused, not thrown at the caller.
    EXPECT_FALSE(zqavs_calib::parseRig(R"({"panorama": {"width": 1e999}})", dir.path, "rig.json", &rig, &error));
    EXPECT_NE(error.find("rig.json: not valid JSON: "), std::string::npos) << error;
}

// A direction `offAxisDeg` off the camera's axis, turned `aroundDeg` about it, in world coordinates.
cv::Vec3d worldDirection(const CameraSpec& camera, double offAxisDeg, double aroundDeg)
{
    const double t = offAxisDeg * kDeg, a = aroundDeg * kDeg;
    return camera.R.t() * cv::Vec3d(std::sin(t) * std::cos(a), std::sin(t) * std::sin(a), std::cos(t));
}

// OpenCV's own projection, with the rotation handed to it rather than applied first.
cv::Point2d openCvPixel(const CameraSpec& camera, const cv::Vec3d& world)
{
    cv::Vec3d rvec;
    cv::Rodrigues(camera.R, rvec);
    std::vector<cv::Point3d> in{cv::Point3d(world)};
    std::vector<cv::Point2d> out;
    if (camera.model == LensModel::Fisheye)
        cv::fisheye::projectPoints(in, out, rvec, cv::Vec3d(), camera.K, camera.D);
    else
        cv::projectPoints(in, rvec, cv::Vec3d(), camera.K, camera.D, out);
    return out[0];
}

TEST(CameraModel, ProjectionAndRayAreInverseAndAgreeWithOpenCv)
{
    const struct {
        LensModel model;
        std::vector<double> D;
        double maxTestedDeg;  // directions up to here must project and come back
        double foldDeg;       // where the model stops seeing (a fold, or the side of a pinhole)
    } cases[] = {
        {LensModel::Pinhole, {-0.2, 0.05, 0.001, -0.002}, 70, 90},
        {LensModel::Pinhole, {0.1, -0.05, 0.0005, 0.0003, 0.01, 0.05, -0.01, 0.005}, 70, 0},
        {LensModel::Pinhole, {-0.3, 0, 0, 0, 0}, 44, 46.51},        // r (1 - 0.3 r^2) peaks at r = 1.054
        {LensModel::Fisheye, {-0.02, 0.003, -0.0005, 0.00002}, 110, 0},
        {LensModel::Fisheye, {-0.1, 0, 0, 0}, 102, 104.63},        // theta - 0.1 theta^3 peaks at 1.826
    };
    for (const auto& c : cases) {
        CameraSpec camera;
        camera.model = c.model;
        camera.image_width = 1280;
        camera.image_height = 960;
        camera.K = cv::Matx33d(400, 0, 641.5, 0, 405, 478, 0, 0, 1);
        camera.D = c.D;
        camera.R = kTilted;
        SCOPED_TRACE(testing::Message() << "model " << static_cast<int>(c.model) << " D[0] " << c.D[0]);

        std::vector<cv::Vec3d> directions;
        for (double off = 0; off <= c.maxTestedDeg; off += c.maxTestedDeg / 12)
            for (double around = 0; around < 360; around += 45) directions.push_back(worldDirection(camera, off, around));
        std::vector<cv::Point2d> pixels;
        std::vector<uint8_t> visible;
        zqavs_calib::projectDirections(camera, directions, &pixels, &visible);
        for (size_t i = 0; i < directions.size(); ++i) {
            ASSERT_TRUE(visible[i]) << i;
            EXPECT_LT(cv::norm(zqavs_calib::cameraRay(camera, pixels[i]) - directions[i]), 1e-7) << i;
            if ((camera.R * directions[i])[2] > 1e-3) {
                const cv::Point2d expected = openCvPixel(camera, directions[i]);
                EXPECT_LT(cv::norm(pixels[i] - expected), 1e-6 * (1 + cv::norm(expected))) << i;
            }
        }
        if (c.foldDeg == 0) continue;
        zqavs_calib::projectDirections(
            camera, {worldDirection(camera, c.foldDeg - 1, 30), worldDirection(camera, c.foldDeg + 1, 30)}, &pixels,
            &visible);
        EXPECT_EQ(visible, (std::vector<uint8_t>{1, 0}));
        if (c.model == LensModel::Pinhole && c.foldDeg >= 90) continue;  // a side, not a fold
        // Just past the farthest radius the model reaches, a pixel has no ray.
        const cv::Point2d centre(camera.K(0, 2), camera.K(1, 2));
        std::vector<cv::Vec3d> rays;
        std::vector<uint8_t> valid;
        zqavs_calib::cameraRays(camera, {pixels[0], centre + (pixels[0] - centre) * 1.02}, &rays, &valid);
        EXPECT_EQ(valid, (std::vector<uint8_t>{1, 0}));
    }
}

TEST(SceneRender, WholeSpherePanoramaIsTheSceneTurnedByItsYaw)
{
    zqavs_synth::RgbImage scene;
    scene.width = 64;
    scene.height = 32;
    scene.rgb.resize(64 * 32 * 3);
    std::mt19937 random(7);
    for (uint8_t& v : scene.rgb) v = static_cast<uint8_t>(random());
    zqavs_calib::PanoramaSpec pano;
    pano.width = 64;
    pano.height = 32;
    pano.vfov_deg = 180;
    for (int shift : {0, 32, -16, 5}) {
        pano.yaw_deg = shift * 360.0 / 64;
        const zqavs_synth::RgbImage out = zqavs_calib::renderPanorama(pano, scene);
        int wrong = 0;
        for (int v = 0; v < 32; ++v)
            for (int u = 0; u < 64; ++u)
                for (int k = 0; k < 3; ++k)
                    wrong += out.rgb[(v * 64 + u) * 3 + k] != scene.rgb[(v * 64 + (u + shift + 64) % 64) * 3 + k];
        EXPECT_EQ(wrong, 0) << "yaw shift " << shift;
    }
}

}  // namespace
