// zqavs calib RIG.json -o DIR: the calibration directory of a real rig.
#include <opencv2/imgcodecs.hpp>

#include <cstdio>

#include "avs_calib_core.h"
#include "rig.h"
#include "rig_layout.h"
#include "tool_common.h"

namespace zqavs {

int runCalib(const CalibOptions& options)
{
    zqavs_calib::Rig rig;
    std::string error;
    if (!zqavs_calib::loadRig(options.rig, &rig, &error)) {
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
