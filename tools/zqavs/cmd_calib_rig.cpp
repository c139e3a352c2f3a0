// zqavs calib RIG.json [--refine IMG...] [--seams [IMG...]] -o DIR: the calibration directory of a real rig.
#include <opencv2/imgcodecs.hpp>

#include <chrono>
#include <cstdio>

#include "avs_calib_core.h"
#include "rig.h"
#include "rig_layout.h"
#include "rig_refine.h"
#include "rig_seams.h"
#include "tool_common.h"

namespace zqavs {

namespace {

// One image per camera, checked against the camera's size, as NV12 (the form the library
// stitches, so both uses below see what it would).
bool loadRigImages(const zqavs_calib::Rig& rig, const std::vector<std::string>& paths, const char* option,
                   std::vector<zqavs_synth::Nv12Image>* images, std::string* error)
{
    if (paths.size() != rig.cameras.size()) {
        *error = std::string(option) + ": " + std::to_string(paths.size()) + " images for " +
                 std::to_string(rig.cameras.size()) + " cameras: give one per camera, in the rig file's order";
        return false;
    }
    for (size_t c = 0; c < paths.size(); ++c) {
        const zqavs_calib::CameraSpec& camera = rig.cameras[c];
        images->emplace_back();
        if (!loadCameraImage(paths[c], camera.image_width, camera.image_height, &images->back(), error)) return false;
    }
    return true;
}

std::vector<cv::Mat> lumas(const std::vector<zqavs_synth::Nv12Image>& images)
{
    std::vector<cv::Mat> out;
    for (const zqavs_synth::Nv12Image& image : images)
        out.push_back(cv::Mat(image.height, image.width, CV_8UC1, const_cast<uint8_t*>(image.data.data()), image.stride)
                          .clone());
    return out;
}

std::vector<cv::Mat> colours(const std::vector<zqavs_synth::Nv12Image>& images)
{
    std::vector<cv::Mat> out;
    for (const zqavs_synth::Nv12Image& image : images) {
        zqavs_synth::RgbImage rgb = zqavs_synth::nv12ToRgb(image.view());
        out.push_back(cv::Mat(rgb.height, rgb.width, CV_8UC3, rgb.rgb.data()).clone());
    }
    return out;
}

// Replaces the rig's rotations by those its cameras' images agree on, printing the report.
bool refineRotations(const std::vector<zqavs_synth::Nv12Image>& images, zqavs_calib::Rig* rig, std::string* error)
{
    const auto start = std::chrono::steady_clock::now();
    zqavs_calib::RigRefinement refinement;
    if (!zqavs_calib::refineRig(*rig, lumas(images), &refinement, error)) return false;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printf("%srotations refined in %.2f s\n", zqavs_calib::refinementReport(refinement).c_str(), seconds);
    *rig = refinement.rig;
    return true;
}

zqavs_calib::SeamFinder seamFinder(const std::string& name)
{
    if (name == "dp") return zqavs_calib::SeamFinder::DynamicProgramming;
    if (name == "straight") return zqavs_calib::SeamFinder::Straight;
    return zqavs_calib::SeamFinder::GraphCut;
}

// Both image sets are read, and refused, before anything is computed or written.
struct RigImages {
    std::vector<zqavs_synth::Nv12Image> refine;
    std::vector<zqavs_synth::Nv12Image> seams;
};

bool loadImages(const CalibOptions& options, const zqavs_calib::Rig& rig, RigImages* images, std::string* error)
{
    if (!options.refineImages.empty() &&
        !loadRigImages(rig, options.refineImages, "--refine", &images->refine, error))
        return false;
    if (!options.seams) return true;
    // Without images of its own, --seams takes those the rotations were refined from.
    if (options.seamImages.empty()) {
        images->seams = images->refine;
        return true;
    }
    return loadRigImages(rig, options.seamImages, "--seams", &images->seams, error);
}

bool writeOverlay(const CalibOptions& options, const zqavs_calib::RigCalibration& calib,
                  const std::vector<zqavs_calib::SeamChoice>& choices)
{
    std::vector<std::vector<int>> paths;
    for (const zqavs_calib::SeamChoice& choice : choices) paths.push_back(choice.path);
    const cv::Mat picture = zqavs_calib::drawLayoutOverlay(calib.calibration.layout, calib.calibration.seams, paths);
    if (!cv::imwrite(options.overlay, picture)) {
        fprintf(stderr, "zqavs calib: cannot write the overlay %s\n", options.overlay.c_str());
        return false;
    }
    printf("wrote %s\n", options.overlay.c_str());
    return true;
}

int fail(const std::string& error)
{
    fprintf(stderr, "zqavs calib: %s\n", error.c_str());
    return kExitFailure;
}

}  // namespace

int runCalib(const CalibOptions& options)
{
    zqavs_calib::Rig rig;
    std::string error;
    if (!zqavs_calib::loadRig(options.rig, &rig, &error)) return fail(error);
    if (options.seamWidth > 0) rig.panorama.seam_width = options.seamWidth;
    RigImages images;
    if (!loadImages(options, rig, &images, &error)) return fail(error);
    if (!images.refine.empty() && !refineRotations(images.refine, &rig, &error)) return fail(error);
    zqavs_calib::RigCalibration calib;
    if (!zqavs_calib::calibrateRig(rig, &calib, &error)) return fail(options.rig + ": " + error);
    std::vector<zqavs_calib::SeamChoice> choices;
    if (options.seams &&
        !zqavs_calib::chooseSeams(rig, colours(images.seams), seamFinder(options.seamFinder), &calib, &choices, &error))
        return fail(error);
    for (const std::string& warning : calib.warnings) fprintf(stderr, "zqavs calib: warning: %s\n", warning.c_str());
    // The rig file travels with its calibration, every model written in, in the same all-or-nothing step.
    const std::vector<zqavs_calib_core::NamedFile> rigCopy{{"rig.json", zqavs_calib::rigToJson(rig) + "\n"}};
    const zqavs_synth::Calibration& out = calib.calibration;
    if (!zqavs_calib_core::writeCalibrationDir(options.out, out.layout, out.meshes, out.alphas, rigCopy, &error))
        return fail(error);
    printf("%s", zqavs_calib::calibrationReport(calib).c_str());
    printf("%s", zqavs_calib::seamReport(choices, seamFinder(options.seamFinder)).c_str());
    printf("wrote %s\n", options.out.c_str());
    if (!options.overlay.empty() && !writeOverlay(options, calib, choices)) return kExitFailure;
    return kExitSuccess;
}

}  // namespace zqavs
