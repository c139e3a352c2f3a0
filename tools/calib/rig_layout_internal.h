// Pieces of the rig calibration shared by its source files.
#ifndef ZQAVS_CALIB_RIG_LAYOUT_INTERNAL_H
#define ZQAVS_CALIB_RIG_LAYOUT_INTERNAL_H

#include <string>
#include <vector>

#include "rig_layout.h"

namespace zqavs_calib {

std::string formatText(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

// Ownership, seams and blocks of the rig; seams in the order of their left camera.
bool layoutRig(const Rig& rig, PSR_INITPARAMS_T* layout, std::vector<RigSeam>* seams,
               std::vector<std::string>* warnings, std::string* error);

}  // namespace zqavs_calib

#endif  // ZQAVS_CALIB_RIG_LAYOUT_INTERNAL_H
