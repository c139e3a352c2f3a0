// zqavs calib RIG.json [--refine IMG...] -o DIR: the calibration directory of a real rig.
#include <opencv2/imgcodecs.hpp>

#include <chrono>
#include <cstdio>

#include "avs_calib_core.h"
#include "rig.h"
#include "rig_layout.h"
#include "rig_refine.h"
#include "tool_common.h"

namespace zqavs {

namespace {

// The luma plane of each camera's image, checked against the camera's size.
bool loadRefineImages(const zqavs_calib::Rig& rig, const std::vector<std::string>& paths, std::vector<cv::Mat>* lumas,
                      std::string* error)
{
    if (paths.size() != rig.cameras.size()) {
        *error = "--refine: " + std::to_string(paths.size()) + " images for " + std::to_string(rig.cameras.size()) +
                 " cameras: give one per camera, in the rig file's order";
        return false;
    }
    for (size_t c = 0; c < paths.size(); ++c) {
        const zqavs_calib::CameraSpec& camera = rig.cameras[c];
        zqavs_synth::Nv12Image image;
        if (!loadCameraImage(paths[c], camera.image_width, camera.image_height, &image, error)) return false;
        lumas->push_back(cv::Mat(image.height, image.width, CV_8UC1, image.data.data(), image.stride).clone());
    }
    return true;
}

// Replaces the rig's rotations by those its cameras' images agree on, printing the report.
bool refineRotations(const std::vector<std::string>& paths, zqavs_calib::Rig* rig, std::string* error)
{
    std::vector<cv::Mat> lumas;
    if (!loadRefineImages(*rig, paths, &lumas, error)) return false;
    const auto start = std::chrono::steady_clock::now();
    zqavs_calib::RigRefinement refinement;
    if (!zqavs_calib::refineRig(*rig, lumas, &refinement, error)) return false;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printf("%srotations refined in %.2f s\n", zqavs_calib::refinementReport(refinement).c_str(), seconds);
    *rig = refinement.rig;
    return true;
}

}  // namespace

int runCalib(const CalibOptions& options)
{
    zqavs_calib::Rig rig;
    std::string error;
    if (!zqavs_calib::loadRig(options.rig, &rig, &error)) {
        fprintf(stderr, "zqavs calib: %s\n", error.c_str());
        return kExitFailure;
    }
    if (!options.refineImages.empty() && !refineRotations(options.refineImages, &rig, &error)) {
        fprintf(stderr, "zqavs calib: %s\n", error.c_str());
        return kExitFailure;
    }
    zqavs_calib::RigCalibration calib;
    if (!zqavs_calib::calibrateRig(rig, &calib, &error)) {
        fprintf(stderr, "zqavs calib: %s: %s\n", options.rig.c_str(), error.c_str());
        return kExitFailure;
    }
    for (const std::string& warning : calib.warnings) fprintf(stderr, "zqavs calib: warning: %s\n", warning.c_str());
    // The rig file travels with its calibration, every model written in, in the same all-or-nothing step.
    const std::vector<zqavs_calib_core::NamedFile> rigCopy{{"rig.json", zqavs_calib::rigToJson(rig) + "\n"}};
    const zqavs_synth::Calibration& out = calib.calibration;
    if (!zqavs_calib_core::writeCalibrationDir(options.out, out.layout, out.meshes, out.alphas, rigCopy, &error)) {
        fprintf(stderr, "zqavs calib: %s\n", error.c_str());
        return kExitFailure;
    }
    printf("%s", zqavs_calib::calibrationReport(calib).c_str());
    printf("wrote %s\n", options.out.c_str());
    if (!options.overlay.empty()) {
        const cv::Mat picture = zqavs_calib::drawLayoutOverlay(calib.calibration.layout, calib.calibration.seams);
        if (!cv::imwrite(options.overlay, picture)) {
            fprintf(stderr, "zqavs calib: cannot write the overlay %s\n", options.overlay.c_str());
            return kExitFailure;
        }
        printf("wrote %s\n", options.overlay.c_str());
    }
    return kExitSuccess;
}

}  // namespace zqavs
