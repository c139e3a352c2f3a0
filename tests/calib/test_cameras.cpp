// Camera models: the rig file's checks, the models both ways, the scene renders, and chessboard
// calibration, whose photos rendered through known models give those models back.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <functional>

#include "gpu/stitch_fixture.h"
#include "intrinsics.h"
#include "rig.h"
#include "scene_render.h"

using namespace zqavs_calib;

namespace {

using nlohmann::json;

constexpr double kDegree = 3.14159265358979323846 / 180.0;

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
          {{"model", "fisheye"}, {"image_width", 640}, {"image_height", 480}, {"R", matrix(kTilted)},
           {"K", {250, 0, 320.5, 0, 251, 239.5, 0, 0, 1}}, {"D", {-0.02, 0.003, -0.0005, 0.00002}}}}},
    };
}

// The camera that the intrinsics files hold, written as `zqavs calib intrinsics` writes them.
CameraSpec fileCamera(int width, LensModel model)
{
    std::vector<double> D{-0.2, 0.05, 0.001, -0.002, 0.01};
    D.resize(model == LensModel::Fisheye ? 4 : 5);
    return {model, width, 480, cv::Matx33d(500.25, 0, 319.5, 0, 502.125, 241, 0, 0, 1), D, cv::Matx33d::eye(), ""};
}

void writeIntrinsics(const std::string& path, int width, LensModel model = LensModel::Pinhole)
{
    IntrinsicsResult result;
    result.camera = fileCamera(width, model);
    std::string error;
    EXPECT_TRUE(writeIntrinsicsFile(path, result, {{9, 6}, 0.025}, &error)) << error;
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
    writeIntrinsics(dir.path + "/fisheye.yml", 640, LensModel::Fisheye);
    std::string error;
    Rig rig, again;
    ASSERT_TRUE(parseRig(validRig().dump(), dir.path, "rig.json", &rig, &error)) << error;
    EXPECT_TRUE(sameCamera(rig.cameras[0], fileCamera(640, LensModel::Pinhole)));
    EXPECT_EQ(rig.panorama.step, 16);  // a default
    ASSERT_TRUE(parseRig(rigToJson(rig), "", "copy", &again, &error)) << error;
    EXPECT_EQ(rigToJson(again), rigToJson(rig));
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
        {[](json& j) { j["panorama"]["seam_width"] = 24; }, "panorama.seam_width:"},
        {[](json& j) { j["panorama"]["alpha"] = "u16"; }, "panorama.alpha:"},
        {[](json& j) { j["panorama"]["hfov"] = 90; }, "panorama.hfov: unknown key"},
        {[](json& j) { j["cameras"][1]["D"].push_back(0.0); },
         "rig.json: cameras[1].D: a fisheye model takes 4 coefficients, got 5"},
        {[](json& j) { j["cameras"][1]["model"] = "pinhole"; j["cameras"][1]["D"] = {0.1, 0, 0, 0, 0, 0}; },
         "cameras[1].D: a pinhole model takes 4, 5 or 8"},
        {[](json& j) { j["cameras"][1]["D"][2] = nullptr; }, "cameras[1].D[2]: expected a number"},
        {[](json& j) { j["cameras"][1]["K"][1] = 0.5; }, "cameras[1].K:"},
        {[](json& j) { j["cameras"][1]["R"] = {1, 0, 0, 0, 1, 0, 0, 0, -1}; }, "cameras[1].R: not a rotation"},
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
        EXPECT_FALSE(parseRig(j.dump(), dir.path, "rig.json", &rig, &error)) << c.expected;
        EXPECT_NE(error.find(c.expected), std::string::npos) << "expected '" << c.expected << "' in: " << error;
    }
    // Text no JSON value can stand for: refused, not thrown at the caller.
    EXPECT_FALSE(parseRig(R"({"panorama": {"width": 1e999}})", dir.path, "rig.json", &rig, &error));
    EXPECT_NE(error.find("rig.json: not valid JSON: "), std::string::npos) << error;
}

// A direction `offAxisDeg` off the camera's axis, turned `aroundDeg` about it, in world coordinates.
cv::Vec3d worldDirection(const CameraSpec& camera, double offAxisDeg, double aroundDeg)
{
    const double t = offAxisDeg * kDegree, a = aroundDeg * kDegree;
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
        const CameraSpec camera{c.model, 1280, 960, cv::Matx33d(400, 0, 641.5, 0, 405, 478, 0, 0, 1), c.D, kTilted, ""};
        SCOPED_TRACE(testing::Message() << "model " << static_cast<int>(c.model) << " D[0] " << c.D[0]);

        std::vector<cv::Vec3d> directions;
        for (double off = 0; off <= c.maxTestedDeg; off += c.maxTestedDeg / 12)
            for (double around = 0; around < 360; around += 45) directions.push_back(worldDirection(camera, off, around));
        std::vector<cv::Point2d> pixels;
        std::vector<uint8_t> visible;
        projectDirections(camera, directions, &pixels, &visible);
        for (size_t i = 0; i < directions.size(); ++i) {
            ASSERT_TRUE(visible[i]) << i;
            EXPECT_LT(cv::norm(cameraRay(camera, pixels[i]) - directions[i]), 1e-7) << i;
            if ((camera.R * directions[i])[2] > 1e-3) {
                const cv::Point2d expected = openCvPixel(camera, directions[i]);
                EXPECT_LT(cv::norm(pixels[i] - expected), 1e-6 * (1 + cv::norm(expected))) << i;
            }
        }
        if (c.foldDeg == 0) continue;
        projectDirections(
            camera, {worldDirection(camera, c.foldDeg - 1, 30), worldDirection(camera, c.foldDeg + 1, 30)}, &pixels,
            &visible);
        EXPECT_EQ(visible, (std::vector<uint8_t>{1, 0}));
        if (c.model == LensModel::Pinhole && c.foldDeg >= 90) continue;  // a side, not a fold
        // Just past the farthest radius the model reaches, a pixel has no ray.
        const cv::Point2d centre(camera.K(0, 2), camera.K(1, 2));
        std::vector<cv::Vec3d> rays;
        std::vector<uint8_t> valid;
        cameraRays(camera, {pixels[0], centre + (pixels[0] - centre) * 1.02}, &rays, &valid);
        EXPECT_EQ(valid, (std::vector<uint8_t>{1, 0}));
    }
}

TEST(SceneRender, WholeSpherePanoramaIsTheSceneTurnedByItsYaw)
{
    cv::Mat scene(32, 64, CV_8UC3);
    cv::randu(scene, 0, 256);
    cv::Mat twice;  // turned scenes are column ranges of it
    cv::hconcat(scene, scene, twice);
    PanoramaSpec pano;
    pano.width = 64;
    pano.height = 32;
    pano.vfov_deg = 180;
    for (int shift : {0, 32, -16, 5}) {
        pano.yaw_deg = shift * 360.0 / 64;
        zqavs_synth::RgbImage out = renderPanorama(pano, {64, 32, {scene.data, scene.data + 64 * 32 * 3}});
        const cv::Mat turned = twice.colRange((shift + 64) % 64, (shift + 64) % 64 + 64);
        EXPECT_EQ(cv::norm(cv::Mat(32, 64, CV_8UC3, out.rgb.data()), turned, cv::NORM_INF), 0) << "yaw shift " << shift;
    }
}

const cv::Size kPhotoSize(320, 240);
const Chessboard kBoard{{9, 6}, 0.025};

// The board's tilt (degrees about x, y, z) and the direction of its centre from the camera,
// in units of the camera case's spread.
struct BoardPose {
    double rx, ry, rz;
    double across, down;
};

const BoardPose kPoses[] = {
    {0, 0, 0, 0, 0},         {35, 0, 5, 0, 0},          {0, 35, -5, 0, 0},        {-25, -25, 10, 0, 0},
    {15, -20, 10, 1, 0.6},   {-15, 20, -10, -1, -0.6},  {20, 20, 0, 1, -0.6},     {-20, -20, 0, -1, 0.6},
};

// Black and white squares, a white margin one square wide, a grey wall behind.
uint8_t boardShade(double x, double y)
{
    const int col = static_cast<int>(std::floor(x / kBoard.square));
    const int row = static_cast<int>(std::floor(y / kBoard.square));
    const int cols = kBoard.innerCorners.width, rows = kBoard.innerCorners.height;
    if (col < -2 || row < -2 || col > cols || row > rows) return 110;
    if (col == -2 || row == -2 || col == cols || row == rows) return 230;
    return (col + row) % 2 == 0 ? 25 : 230;
}

// A photo of the board through the camera's model: each of s x s samples per pixel follows its
// ray to the board's plane; their mean keeps the edges free of aliasing.
cv::Mat renderBoard(const CameraSpec& camera, const std::vector<cv::Vec3d>& rays, int s, const BoardPose& pose,
                    double spread, double distance)
{
    cv::Matx33d Rx, Ry, Rz;  // about x, then y, then z
    cv::Rodrigues(cv::Vec3d(pose.rx * kDegree, 0, 0), Rx);
    cv::Rodrigues(cv::Vec3d(0, pose.ry * kDegree, 0), Ry);
    cv::Rodrigues(cv::Vec3d(0, 0, pose.rz * kDegree), Rz);
    const cv::Matx33d R = Rz * Ry * Rx;
    const cv::Vec3d centreOnBoard(kBoard.innerCorners.width - 1, kBoard.innerCorners.height - 1, 0);
    const cv::Vec3d centre = distance * cv::normalize(cv::Vec3d(std::tan(pose.across * spread * kDegree),
                                                                std::tan(pose.down * spread * kDegree), 1));
    const cv::Vec3d t = centre - R * centreOnBoard * (kBoard.square / 2);
    const cv::Vec3d normal(R(0, 2), R(1, 2), R(2, 2));
    cv::Mat fine(camera.image_height * s, camera.image_width * s, CV_8UC1);
    for (int i = 0; i < fine.rows * fine.cols; ++i) {
        const double along = normal.dot(t) / normal.dot(rays[i]);
        const cv::Vec3d onBoard = R.t() * (along * rays[i] - t);
        fine.data[i] = along > 0 ? boardShade(onBoard[0], onBoard[1]) : 110;
    }
    cv::Mat photo;
    cv::resize(fine, photo, cv::Size(camera.image_width, camera.image_height), 0, 0, cv::INTER_AREA);
    return photo;
}

CameraSpec camera(LensModel model, double fx, double fy, double cx, double cy, std::vector<double> D)
{
    return {model, kPhotoSize.width, kPhotoSize.height, cv::Matx33d(fx, 0, cx, 0, fy, cy, 0, 0, 1), std::move(D),
            cv::Matx33d::eye(), ""};
}

std::vector<ChessboardPhoto> boardPhotos(const CameraSpec& camera, double spread, double distance, int s)
{
    std::vector<cv::Point2d> pixels;  // the centres of an s-times finer pixel grid
    for (int y = 0; y < camera.image_height * s; ++y)
        for (int x = 0; x < camera.image_width * s; ++x) pixels.emplace_back((x + 0.5) / s - 0.5, (y + 0.5) / s - 0.5);
    std::vector<cv::Vec3d> rays;
    cameraRays(camera, pixels, &rays, nullptr);
    std::vector<ChessboardPhoto> photos;
    for (const BoardPose& pose : kPoses)
        photos.push_back({"pose" + std::to_string(photos.size()), renderBoard(camera, rays, s, pose, spread, distance)});
    return photos;
}

TEST(Intrinsics, RecoversTheModelThePhotosWereRenderedWith)
{
    struct Case {
        const char* name;
        CameraSpec truth;
        double spread, distance;  // degrees off axis per pose unit; metres to the board
    };
    // The fisheye lens sees about 100 degrees across, far from the 180 that OpenCV's fit starts from.
    const Case cases[] = {
        {"pinhole", camera(LensModel::Pinhole, 300, 296, 163.7, 118.4, {-0.28, 0.09, 0.0012, -0.0009, 0}), 9, 0.4},
        {"fisheye", camera(LensModel::Fisheye, 185, 186, 158.2, 122.6, {0.05, -0.01, 0.002, 0}), 22, 0.26},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<ChessboardPhoto> photos = boardPhotos(c.truth, c.spread, c.distance, 3);
        IntrinsicsResult result;
        std::string error;
        ASSERT_TRUE(calibrateIntrinsics(photos, kBoard, c.truth.model, &result, &error)) << error;
        EXPECT_TRUE(result.withoutBoard.empty());
        EXPECT_LT(result.rms, 0.25);
        const cv::Matx33d& K = result.camera.K;
        for (int axis : {0, 1}) {
            EXPECT_NEAR(K(axis, axis), c.truth.K(axis, axis), 0.005 * c.truth.K(axis, axis)) << "focal " << axis;
            EXPECT_NEAR(K(axis, 2), c.truth.K(axis, 2), 1.0) << "principal point " << axis;
        }
        printf("%s: fx %.3f fy %.3f cx %.3f cy %.3f, RMS %.4f px\n", c.name, K(0, 0), K(1, 1), K(0, 2), K(1, 2),
               result.rms);
        EXPECT_EQ(result.camera.D.size(), c.truth.D.size());
    }
}

TEST(Intrinsics, RefusesPhotoSetsThatCannotGiveAModel)
{
    const CameraSpec pinhole = camera(LensModel::Pinhole, 300, 300, 159.5, 119.5, {});
    const cv::Mat board = boardPhotos(pinhole, 10, 0.55, 1).front().gray;
    const cv::Mat wall(kPhotoSize, CV_8UC1, cv::Scalar(110));
    const cv::Mat smallWall(kPhotoSize / 2, CV_8UC1, cv::Scalar(110));
    struct Case {
        const char* what;
        std::vector<cv::Mat> images;
        const char* message;
        size_t withoutBoard;
    };
    const Case cases[] = {
        {"no board anywhere", {wall, wall, wall}, "no 9x6 chessboard found in any photo", 3},
        {"too few boards", {board, wall, board}, "found in 2 photo(s), at least 3", 1},
        {"mixed sizes", {board, board, smallWall, board}, "photo2 is 160x120 but photo0 is 320x240", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<ChessboardPhoto> photos;
        for (const cv::Mat& image : c.images) photos.push_back({"photo" + std::to_string(photos.size()), image});
        IntrinsicsResult result;
        std::string error;
        EXPECT_FALSE(calibrateIntrinsics(photos, kBoard, LensModel::Pinhole, &result, &error));
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
        EXPECT_EQ(result.withoutBoard.size(), c.withoutBoard);
    }
}

}  // namespace
