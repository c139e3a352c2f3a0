// Loads a calibration directory into memory, for stitching in buffer mode.
#ifndef ZQAVS_CALIB_LOADER_H
#define ZQAVS_CALIB_LOADER_H

#include <string>

#include "calib_check.h"
#include "zqavs_synth.h"

namespace zqavs {

// Checks `dir` first (every error is reported into *error) and reads its meshes and the alpha
// maps of the blended seams. `alpha` is "u8", "float" or "auto" (from the alpha files' sizes).
bool loadCalibration(const std::string& dir, const std::string& alpha, zqavs_synth::Calibration* out,
                     std::string* error);

}  // namespace zqavs

#endif  // ZQAVS_CALIB_LOADER_H
