// Chessboard calibration: photos rendered through known camera models give those models back, and
// photo sets that cannot give one are refused.
#include <gtest/gtest.h>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>

#include "gpu/stitch_fixture.h"
#include "intrinsics.h"

using namespace zqavs_calib;

namespace {

constexpr double kDegree = 3.14159265358979323846 / 180.0;
const cv::Size kPhotoSize(320, 240);
const Chessboard kBoard{{9, 6}, 0.025};

// The board's tilt (degrees about x, y, z) and the direction of its centre from the camera, in
// units of the camera case's spread.
struct BoardPose {
    double rx, ry, rz;
    double across, down;
};

const BoardPose kPoses[] = {
    {0, 0, 0, 0, 0},         {35, 0, 5, 0, 0},          {0, 35, -5, 0, 0},        {-25, -25, 10, 0, 0},
    {15, -20, 10, 1, 0.6},   {-15, 20, -10, -1, -0.6},  {20, 20, 0, 1, -0.6},     {-20, -20, 0, -1, 0.6},
};

// About x, then y, then z.
cv::Matx33d rotation(double rx, double ry, double rz)
{
    cv::Matx33d r = cv::Matx33d::eye(), turn;
    for (const cv::Vec3d& axis : {cv::Vec3d(rx, 0, 0), cv::Vec3d(0, ry, 0), cv::Vec3d(0, 0, rz)}) {
        cv::Rodrigues(axis * kDegree, turn);
        r = turn * r;
    }
    return r;
}

// The rays (on the plane z = 1) through the centres of an s-times finer pixel grid.
std::vector<cv::Point2d> finePixelRays(const CameraSpec& camera, int s)
{
    std::vector<cv::Point2d> pixels;
    for (int y = 0; y < camera.image_height * s; ++y)
        for (int x = 0; x < camera.image_width * s; ++x) pixels.emplace_back((x + 0.5) / s - 0.5, (y + 0.5) / s - 0.5);
    std::vector<cv::Point2d> rays;
    const cv::TermCriteria exact(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 30, 1e-12);
    if (camera.model == LensModel::Fisheye)
        cv::fisheye::undistortPoints(pixels, rays, camera.K, camera.D, cv::noArray(), cv::noArray(), exact);
    else
        cv::undistortPoints(pixels, rays, camera.K, camera.D, cv::noArray(), cv::noArray(), exact);
    return rays;
}

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
cv::Mat renderBoard(const CameraSpec& camera, const std::vector<cv::Point2d>& rays, int s, const BoardPose& pose,
                    double spread, double distance)
{
    const cv::Matx33d R = rotation(pose.rx, pose.ry, pose.rz);
    const cv::Vec3d centreOnBoard((kBoard.innerCorners.width - 1) * kBoard.square / 2,
                                  (kBoard.innerCorners.height - 1) * kBoard.square / 2, 0);
    const cv::Vec3d centre =
        distance * cv::normalize(cv::Vec3d(std::tan(pose.across * spread * kDegree), std::tan(pose.down * spread * kDegree), 1));
    const cv::Vec3d t = centre - R * centreOnBoard;
    const cv::Vec3d normal(R(0, 2), R(1, 2), R(2, 2));
    cv::Mat fine(camera.image_height * s, camera.image_width * s, CV_8UC1);
    for (int i = 0; i < fine.rows * fine.cols; ++i) {
        const cv::Vec3d ray(rays[i].x, rays[i].y, 1);
        const double along = normal.dot(t) / normal.dot(ray);
        const cv::Vec3d onBoard = R.t() * (along * ray - t);
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
    const std::vector<cv::Point2d> rays = finePixelRays(camera, s);
    std::vector<ChessboardPhoto> photos;
    for (const BoardPose& pose : kPoses)
        photos.push_back({"pose" + std::to_string(photos.size()), renderBoard(camera, rays, s, pose, spread, distance)});
    return photos;
}

}  // namespace

TEST(Intrinsics, RecoversTheModelThePhotosWereRenderedWith)
{
    struct Case {
        const char* file;
        CameraSpec truth;
        double spread, distance;  // degrees off axis per pose unit; metres to the board
    };
    // The fisheye lens sees about 100 degrees across, far from the 180 that OpenCV's fit starts from.
    const Case cases[] = {
        {"pinhole.yml", camera(LensModel::Pinhole, 300, 296, 163.7, 118.4, {-0.28, 0.09, 0.0012, -0.0009, 0}), 9, 0.4},
        {"fisheye.xml", camera(LensModel::Fisheye, 185, 186, 158.2, 122.6, {0.05, -0.01, 0.002, 0}), 22, 0.26},
    };
    stitch_test::TempDir dir;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        const std::vector<ChessboardPhoto> photos = boardPhotos(c.truth, c.spread, c.distance, 3);
        IntrinsicsResult result;
        std::string error;
        ASSERT_TRUE(calibrateIntrinsics(photos, kBoard, c.truth.model, &result, &error)) << error;
        EXPECT_TRUE(result.withoutBoard.empty());
        EXPECT_LT(result.rms, 0.25);
        const cv::Matx33d& K = result.camera.K;
        EXPECT_NEAR(K(0, 0), c.truth.K(0, 0), 0.005 * c.truth.K(0, 0));
        EXPECT_NEAR(K(1, 1), c.truth.K(1, 1), 0.005 * c.truth.K(1, 1));
        EXPECT_NEAR(K(0, 2), c.truth.K(0, 2), 1.0);
        EXPECT_NEAR(K(1, 2), c.truth.K(1, 2), 1.0);
        printf("%s: fx %.3f fy %.3f cx %.3f cy %.3f, RMS %.4f px\n", c.file, K(0, 0), K(1, 1), K(0, 2), K(1, 2),
               result.rms);

        // What a rig file's reader gets back.
        const std::string path = dir.path + "/" + c.file;
        ASSERT_TRUE(writeIntrinsicsFile(path, result, kBoard, &error)) << error;
        cv::FileStorage file(path, cv::FileStorage::READ);
        cv::Mat readK, readD;
        file["camera_matrix"] >> readK;
        file["distortion_coefficients"] >> readD;
        EXPECT_EQ(cv::norm(readK, cv::Mat(K)), 0.0);
        EXPECT_EQ(readD.total(), c.truth.D.size());
        EXPECT_EQ(static_cast<int>(file["image_width"]), kPhotoSize.width);
        EXPECT_EQ(static_cast<int>(file["image_height"]), kPhotoSize.height);
        EXPECT_EQ(static_cast<std::string>(file["model"]), c.truth.model == LensModel::Fisheye ? "fisheye" : "pinhole");
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
