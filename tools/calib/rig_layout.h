// The calibration of a real rig: which camera owns which panorama columns, where the seams lie,
// the blocks, meshes and alpha maps the library reads, and the report of the choices made.
// Nothing here uses GL.
#ifndef ZQAVS_CALIB_RIG_LAYOUT_H
#define ZQAVS_CALIB_RIG_LAYOUT_H

#include <opencv2/core.hpp>

#include <string>
#include <vector>

#include "rig.h"
#include "zqavs_synth.h"

namespace zqavs_calib {

// A seam between camera `left_camera` (side A) and the next one, with the common view it was
// placed in (columns [view_start, view_end), which may run past the panorama's edges on a
// 360 degree panorama).
struct RigSeam {
    zqavs_synth::Seam window;
    int view_start = 0;
    int view_end = 0;
    int frame_start = 0;   // window start, unwrapped like the left camera's columns
};

struct MeshError {
    double max = 0.0;    // source pixels
    double mean = 0.0;
};

struct RigCalibration {
    zqavs_synth::Calibration calibration;   // layout, meshes and alpha maps, ready to write
    std::vector<RigSeam> seams;              // in the order of their left camera
    MeshError meshError;
    std::vector<std::string> warnings;
};

// Lays out the rig and builds its meshes and alpha maps. False with *error naming the area
// or the cameras at fault and what to change.
bool calibrateRig(const Rig& rig, RigCalibration* out, std::string* error);

// The camera whose pixels panorama column `u` shows (seams split at their centres).
int columnOwner(const RigCalibration& calib, int u);

// The report: per camera its blocks, per seam the overlap available and the width used, the
// mesh interpolation error.
std::string calibrationReport(const RigCalibration& calib);

// The layout as a picture a person can read on its own: one band per camera with its blocks,
// the seams, the columns of every boundary and a legend. `paths` (empty, or one per seam: per
// panorama row the first window column of side B) are drawn into the seams. BGR, `width`
// pixels wide.
cv::Mat drawLayoutOverlay(const PSR_INITPARAMS_T& layout, const std::vector<zqavs_synth::Seam>& blendedSeams,
                          const std::vector<std::vector<int>>& paths = {}, int width = 1600);

}  // namespace zqavs_calib

#endif  // ZQAVS_CALIB_RIG_LAYOUT_H
