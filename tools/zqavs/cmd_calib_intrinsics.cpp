// zqavs calib intrinsics: a camera model from chessboard photos.
#include <opencv2/imgcodecs.hpp>

#include <cstdio>

#include "intrinsics.h"
#include "tool_common.h"

namespace zqavs {

namespace {

// A sharp, flat board fits to a few tenths of a pixel.
constexpr double kLargeRms = 1.0;

bool readPhotos(const std::vector<std::string>& paths, std::vector<zqavs_calib::ChessboardPhoto>* photos,
                std::string* error)
{
    for (const std::string& path : paths) {
        cv::Mat gray = cv::imread(path, cv::IMREAD_GRAYSCALE);
        if (gray.empty()) {
            *error = path + ": cannot read the image";
            return false;
        }
        photos->push_back({path, gray});
    }
    return true;
}

void printPhotosWithoutBoard(const std::vector<std::string>& names)
{
    if (names.empty()) return;
    printf("no board in:");
    for (const std::string& name : names) printf(" %s", name.c_str());
    printf("\n");
}

void printModel(const zqavs_calib::IntrinsicsResult& result)
{
    const zqavs_calib::CameraSpec& camera = result.camera;
    const bool fisheye = camera.model == zqavs_calib::LensModel::Fisheye;
    printf("%s model, %dx%d: fx %.3f fy %.3f cx %.3f cy %.3f, D", fisheye ? "fisheye" : "pinhole",
           camera.image_width, camera.image_height, camera.K(0, 0), camera.K(1, 1), camera.K(0, 2), camera.K(1, 2));
    for (double d : camera.D) printf(" %.6g", d);
    printf("\nRMS reprojection error: %.3f px over %d corners in %d photos\n", result.rms, result.corners,
           result.views);
    if (result.rms > kLargeRms)
        printf("warning: an RMS above %.0f px points to blurred photos, a bent board or a wrong --board\n", kLargeRms);
}

}  // namespace

int runCalibIntrinsics(const IntrinsicsOptions& options)
{
    zqavs_calib::Chessboard board;
    if (!parseSize(options.board, &board.innerCorners.width, &board.innerCorners.height) ||
        board.innerCorners.width < 3 || board.innerCorners.height < 3) {
        fprintf(stderr, "zqavs calib intrinsics: --board: expected COLSxROWS inner corners, 3 or more each, "
                "got '%s'\n", options.board.c_str());
        return kExitUsage;
    }
    board.square = options.square;
    if (!zqavs_calib::isCalibrationFileName(options.out)) {
        fprintf(stderr, "zqavs calib intrinsics: -o: '%s' must end in .yml, .yaml, .xml or .json\n", options.out.c_str());
        return kExitUsage;
    }
    std::vector<zqavs_calib::ChessboardPhoto> photos;
    std::string error;
    if (!readPhotos(options.images, &photos, &error)) {
        fprintf(stderr, "zqavs calib intrinsics: %s\n", error.c_str());
        return kExitFailure;
    }
    const auto model = options.fisheye ? zqavs_calib::LensModel::Fisheye : zqavs_calib::LensModel::Pinhole;
    zqavs_calib::IntrinsicsResult result;
    const bool calibrated = zqavs_calib::calibrateIntrinsics(photos, board, model, &result, &error);
    // Which photos lacked the board is worth knowing most when too few had it.
    if (result.withoutBoard.size() < photos.size()) printPhotosWithoutBoard(result.withoutBoard);
    if (!calibrated || !zqavs_calib::writeIntrinsicsFile(options.out, result, board, &error)) {
        fprintf(stderr, "zqavs calib intrinsics: %s\n", error.c_str());
        return kExitFailure;
    }
    printModel(result);
    printf("wrote %s\n", options.out.c_str());
    return kExitSuccess;
}

}  // namespace zqavs
