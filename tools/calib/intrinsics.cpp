// Chessboard calibration of one camera: corners, OpenCV's fit, the calibration file.
#include "intrinsics.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cctype>
#include <cfloat>
#include <cmath>
#include <ctime>
#include <limits>

namespace zqavs_calib {

namespace {

// Fewer views leave the distortion terms to chance; OpenCV's own advice is ten or more.
constexpr int kMinimumViews = 3;

struct BoardViews {
    std::vector<std::vector<cv::Point3f>> board;    // corner positions on the board, metres
    std::vector<std::vector<cv::Point2f>> corners;  // the same corners in the photo
};

struct Fit {
    CameraSpec camera;
    std::vector<cv::Vec3d> rvecs, tvecs;
    double rms = 0.0;
};

std::string sizeText(const cv::Mat& image)
{
    return std::to_string(image.cols) + "x" + std::to_string(image.rows);
}

bool checkPhotoSizes(const std::vector<ChessboardPhoto>& photos, std::string* error)
{
    for (const ChessboardPhoto& photo : photos) {
        if (photo.gray.empty() || photo.gray.type() != CV_8UC1) {
            *error = photo.name + ": not an 8-bit gray image";
            return false;
        }
        if (photo.gray.size() != photos.front().gray.size()) {
            *error = photo.name + " is " + sizeText(photo.gray) + " but " + photos.front().name + " is " +
                     sizeText(photos.front().gray) + ": the photos of one camera must share one size";
            return false;
        }
    }
    return true;
}

// Half the side of cornerSubPix's search window: as large as OpenCV's sample uses, but small
// enough that the window never reaches a neighbouring corner on a board seen small or slanted.
int subPixHalfWindow(const std::vector<cv::Point2f>& corners, cv::Size innerCorners)
{
    const int cols = innerCorners.width;
    double spacing = DBL_MAX;
    for (int row = 0; row < innerCorners.height; ++row) {
        for (int col = 0; col < cols; ++col) {
            const cv::Point2f& here = corners[row * cols + col];
            if (col + 1 < cols) spacing = std::min(spacing, cv::norm(corners[row * cols + col + 1] - here));
            if (row + 1 < innerCorners.height)
                spacing = std::min(spacing, cv::norm(corners[(row + 1) * cols + col] - here));
        }
    }
    return std::clamp(static_cast<int>(spacing / 2.0) - 1, 2, 11);
}

// The classic detector, as OpenCV's calibration sample uses it; where it gives up (boards seen
// steeply, small, or bent by a wide lens), the sector-based one. Both refined the same way.
bool findCorners(const cv::Mat& gray, cv::Size innerCorners, std::vector<cv::Point2f>* corners)
{
    const int flags = cv::CALIB_CB_ADAPTIVE_THRESH | cv::CALIB_CB_NORMALIZE_IMAGE | cv::CALIB_CB_FAST_CHECK;
    const int sectorFlags = cv::CALIB_CB_NORMALIZE_IMAGE | cv::CALIB_CB_EXHAUSTIVE;
    if (!cv::findChessboardCorners(gray, innerCorners, *corners, flags) &&
        !cv::findChessboardCornersSB(gray, innerCorners, *corners, sectorFlags))
        return false;
    const int half = subPixHalfWindow(*corners, innerCorners);
    cv::cornerSubPix(gray, *corners, cv::Size(half, half), cv::Size(-1, -1),
                     cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 50, 1e-3));
    return true;
}

std::vector<cv::Point3f> boardCorners(const Chessboard& board)
{
    std::vector<cv::Point3f> points;
    for (int row = 0; row < board.innerCorners.height; ++row)
        for (int col = 0; col < board.innerCorners.width; ++col)
            points.emplace_back(static_cast<float>(col * board.square), static_cast<float>(row * board.square), 0.f);
    return points;
}

cv::TermCriteria fitCriteria()
{
    return cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 100, DBL_EPSILON);
}

std::vector<cv::Point2f> projectBoard(const Fit& fit, size_t view, const std::vector<cv::Point3f>& board)
{
    std::vector<cv::Point2f> pixels;
    if (fit.camera.model == LensModel::Fisheye)
        cv::fisheye::projectPoints(board, pixels, fit.rvecs[view], fit.tvecs[view], fit.camera.K, fit.camera.D);
    else
        cv::projectPoints(board, fit.rvecs[view], fit.tvecs[view], fit.camera.K, fit.camera.D, pixels);
    return pixels;
}

// One definition for both models: the root mean square distance, over every corner used, between
// where the fit puts the corner and where it was found.
double rmsReprojectionError(const Fit& fit, const BoardViews& views)
{
    double squares = 0.0;
    size_t count = 0;
    for (size_t view = 0; view < views.board.size(); ++view) {
        const std::vector<cv::Point2f> projected = projectBoard(fit, view, views.board[view]);
        for (size_t i = 0; i < projected.size(); ++i) {
            const cv::Point2f miss = projected[i] - views.corners[view][i];
            squares += miss.dot(miss);
        }
        count += projected.size();
    }
    return std::sqrt(squares / static_cast<double>(count));
}

Fit fitPinhole(const BoardViews& views, cv::Size imageSize)
{
    cv::Mat K, D;
    std::vector<cv::Mat> rvecs, tvecs;
    cv::calibrateCamera(views.board, views.corners, imageSize, K, D, rvecs, tvecs, 0, fitCriteria());
    Fit fit;
    fit.camera.model = LensModel::Pinhole;
    fit.camera.K = cv::Matx33d(K);
    D.reshape(1, 1).copyTo(fit.camera.D);
    for (size_t i = 0; i < rvecs.size(); ++i) {
        fit.rvecs.emplace_back(rvecs[i].ptr<double>());
        fit.tvecs.emplace_back(tvecs[i].ptr<double>());
    }
    fit.rms = rmsReprojectionError(fit, views);
    return fit;
}

Fit fitFisheyeFrom(const BoardViews& views, cv::Size imageSize, bool homographyStart)
{
    cv::Matx33d K;
    cv::Vec4d D;
    int flags = cv::fisheye::CALIB_RECOMPUTE_EXTRINSIC | cv::fisheye::CALIB_FIX_SKEW;
    if (homographyStart) {
        K = cv::Matx33d(cv::initCameraMatrix2D(views.board, views.corners, imageSize, 0));
        flags |= cv::fisheye::CALIB_USE_INTRINSIC_GUESS;
    }
    Fit fit;
    cv::fisheye::calibrate(views.board, views.corners, imageSize, K, D, fit.rvecs, fit.tvecs, flags, fitCriteria());
    fit.camera.model = LensModel::Fisheye;
    fit.camera.K = K;
    fit.camera.D.assign(D.val, D.val + 4);
    fit.rms = rmsReprojectionError(fit, views);
    return fit;
}

// OpenCV's fisheye fit starts from a lens that sees 180 degrees across the image, and from there
// it can stall or diverge on narrower lenses; a start from the boards' homographies suits those.
// The better of the two fits wins.
Fit fitFisheye(const BoardViews& views, cv::Size imageSize)
{
    Fit best;
    best.rms = std::numeric_limits<double>::infinity();
    std::string failure = "no finite fit";
    for (bool homographyStart : {false, true}) {
        try {
            Fit fit = fitFisheyeFrom(views, imageSize, homographyStart);
            if (std::isfinite(fit.rms) && fit.rms < best.rms) best = std::move(fit);
        } catch (const cv::Exception& e) {
            failure = e.err;
        }
    }
    if (!std::isfinite(best.rms)) CV_Error(cv::Error::StsNoConv, failure);
    return best;
}

std::string lowercaseExtension(const std::string& path)
{
    const size_t dot = path.find_last_of('.');
    const size_t slash = path.find_last_of('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    std::string extension = path.substr(dot);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension;
}

std::string timestamp()
{
    const std::time_t now = std::time(nullptr);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", std::gmtime(&now));
    return text;
}

}  // namespace

bool calibrateIntrinsics(const std::vector<ChessboardPhoto>& photos, const Chessboard& board, LensModel model,
                         IntrinsicsResult* result, std::string* error)
{
    if (photos.empty()) {
        *error = "no photos";
        return false;
    }
    if (!checkPhotoSizes(photos, error)) return false;
    *result = IntrinsicsResult();
    BoardViews views;
    for (const ChessboardPhoto& photo : photos) {
        std::vector<cv::Point2f> corners;
        if (!findCorners(photo.gray, board.innerCorners, &corners)) {
            result->withoutBoard.push_back(photo.name);
            continue;
        }
        views.corners.push_back(std::move(corners));
        views.board.push_back(boardCorners(board));
    }
    const int found = static_cast<int>(views.corners.size());
    const std::string boardText =
        std::to_string(board.innerCorners.width) + "x" + std::to_string(board.innerCorners.height);
    if (found == 0) {
        *error = "no " + boardText + " chessboard found in any photo (--board counts inner corners)";
        return false;
    }
    if (found < kMinimumViews) {
        *error = "the board was found in " + std::to_string(found) + " photo(s), at least " +
                 std::to_string(kMinimumViews) + " are needed (10 or more at varied angles fit best)";
        return false;
    }
    const cv::Size imageSize = photos.front().gray.size();
    Fit fit;
    try {
        fit = model == LensModel::Fisheye ? fitFisheye(views, imageSize) : fitPinhole(views, imageSize);
    } catch (const cv::Exception& e) {
        *error = "the fit failed (" + e.err + "); photos at more varied angles may help";
        return false;
    }
    if (!std::isfinite(fit.rms)) {
        *error = "the fit did not converge; photos at more varied angles may help";
        return false;
    }
    fit.camera.image_width = imageSize.width;
    fit.camera.image_height = imageSize.height;
    result->camera = fit.camera;
    result->rms = fit.rms;
    result->views = found;
    result->corners = found * board.innerCorners.area();
    return true;
}

bool isCalibrationFileName(const std::string& path)
{
    const std::string extension = lowercaseExtension(path);
    return extension == ".yml" || extension == ".yaml" || extension == ".xml" || extension == ".json";
}

bool writeIntrinsicsFile(const std::string& path, const IntrinsicsResult& result, const Chessboard& board,
                         std::string* error)
{
    if (!isCalibrationFileName(path)) {
        *error = path + ": the name must end in .yml, .yaml, .xml or .json";
        return false;
    }
    const bool fisheye = result.camera.model == LensModel::Fisheye;
    try {
        cv::FileStorage file(path, cv::FileStorage::WRITE);
        if (!file.isOpened()) {
            *error = path + ": cannot write";
            return false;
        }
        file << "calibration_time" << timestamp();
        file << "nr_of_frames" << result.views;
        file << "image_width" << result.camera.image_width;
        file << "image_height" << result.camera.image_height;
        file << "board_width" << board.innerCorners.width;
        file << "board_height" << board.innerCorners.height;
        file << "square_size" << board.square;
        file << "model" << (fisheye ? "fisheye" : "pinhole");
        file << "fisheye_model" << (fisheye ? 1 : 0);
        file << "camera_matrix" << cv::Mat(result.camera.K);
        file << "distortion_coefficients" << cv::Mat(result.camera.D, true);
        file << "avg_reprojection_error" << result.rms;
        file.release();
    } catch (const cv::Exception& e) {
        *error = path + ": " + e.err;
        return false;
    }
    return true;
}

}  // namespace zqavs_calib
