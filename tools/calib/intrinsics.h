// A camera's intrinsics from chessboard photos, on OpenCV's calibration, and the OpenCV calibration
// file that a rig file names ("intrinsics": "cam0.yml").
#ifndef ZQAVS_CALIB_INTRINSICS_H
#define ZQAVS_CALIB_INTRINSICS_H

#include <opencv2/core.hpp>

#include <string>
#include <vector>

#include "rig.h"

namespace zqavs_calib {

// The board as cv::findChessboardCorners sees it.
struct Chessboard {
    cv::Size innerCorners;  // corners where four squares meet, across x down; 3 or more each way
    double square = 0.0;    // side of one square, metres
};

struct ChessboardPhoto {
    std::string name;  // stands for the photo in messages
    cv::Mat gray;      // 8-bit, one channel
};

struct IntrinsicsResult {
    CameraSpec camera;                       // model, image size, K and D; R is the identity
    double rms = 0.0;                        // reprojection error over every corner used, pixels
    int views = 0;                           // photos that showed the board
    int corners = 0;                         // corners used, over all those photos
    std::vector<std::string> withoutBoard;   // names of the photos where no board was found
};

// Finds the board in every photo and fits the model to the corners. False with *error when the
// photos differ in size, too few of them show the board, or the fit fails.
bool calibrateIntrinsics(const std::vector<ChessboardPhoto>& photos, const Chessboard& board, LensModel model,
                         IntrinsicsResult* result, std::string* error);

// True when cv::FileStorage writes `path` in a format it reads back (YAML, XML or JSON by extension).
bool isCalibrationFileName(const std::string& path);

// Writes the keys OpenCV's calibration sample writes (camera_matrix, distortion_coefficients,
// image_width, image_height, avg_reprojection_error, ...) and "model": "pinhole" or "fisheye".
bool writeIntrinsicsFile(const std::string& path, const IntrinsicsResult& result, const Chessboard& board,
                         std::string* error);

}  // namespace zqavs_calib

#endif  // ZQAVS_CALIB_INTRINSICS_H
