// `zqavs check`: a linter for calibration directories. It reads the parameter file with the
// library's own reader and reports every problem it finds, not just the first.
#ifndef ZQAVS_CALIB_CHECK_H
#define ZQAVS_CALIB_CHECK_H

#include <string>
#include <vector>

#include "avs_calib_core.h"

namespace zqavs {

struct Finding {
    enum Severity { Error, Warning };
    Severity severity;
    std::string file;   // path of the file at fault
    int line;           // 1-based line in that file, 0 when not about a line
    std::string message;
};

using zqavs_calib_core::SeamPlan;

struct CheckReport {
    PSR_INITPARAMS_T layout;        // as the file reads; camera_num: the cameras checked
    std::vector<int> cameraLines;   // each camera section's header line
    std::vector<Finding> findings;
    std::vector<SeamPlan> plan;
    int count(Finding::Severity severity) const;
};

// Reads `dir` (with or without a trailing '/'). `cameras` > 0 checks that many camera sections,
// as a context's numView would; 0 takes every section of the file.
CheckReport checkCalibration(const std::string& dir, int cameras = 0);

}  // namespace zqavs

#endif  // ZQAVS_CALIB_CHECK_H
