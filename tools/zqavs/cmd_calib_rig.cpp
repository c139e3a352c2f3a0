// zqavs calib RIG.json -o DIR: the calibration directory of a real rig.
#include <opencv2/imgcodecs.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "rig.h"
#include "rig_layout.h"
#include "tool_common.h"

namespace zqavs {

namespace {

namespace fs = std::filesystem;

// Writes the calibration and the rig file's copy into a staging directory beside `dir` and
// moves them in only when all were written, so that a failure leaves `dir` as it was.
bool writeStaged(const zqavs_synth::Calibration& calib, const std::string& rigJson, const std::string& dir,
                 std::string* error)
{
    fs::path target = fs::absolute(dir).lexically_normal();
    if (target.filename().empty()) target = target.parent_path();
    const fs::path staging = target.parent_path() / ("." + target.filename().string() + ".staging");
    std::error_code ec;
    fs::remove_all(staging, ec);
    bool ok = zqavs_synth::writeCalibration(calib, staging.string(), error);
    if (ok) {
        std::ofstream copy(staging / "rig.json");
        ok = static_cast<bool>(copy << rigJson << '\n');
        if (!ok) *error = "cannot write " + (staging / "rig.json").string();
    }
    if (ok) {
        fs::create_directories(target, ec);
        for (const fs::directory_entry& entry : fs::directory_iterator(staging, ec)) {
            fs::rename(entry.path(), target / entry.path().filename(), ec);
            if (ec) {
                *error = "cannot move " + entry.path().filename().string() + " into " + target.string() + ": " +
                         ec.message();
                ok = false;
                break;
            }
        }
    }
    fs::remove_all(staging, ec);
    return ok;
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
    zqavs_calib::RigCalibration calib;
    if (!zqavs_calib::calibrateRig(rig, &calib, &error)) {
        fprintf(stderr, "zqavs calib: %s: %s\n", options.rig.c_str(), error.c_str());
        return kExitFailure;
    }
    for (const std::string& warning : calib.warnings) fprintf(stderr, "zqavs calib: warning: %s\n", warning.c_str());
    if (!writeStaged(calib.calibration, zqavs_calib::rigToJson(rig), options.out, &error)) {
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
