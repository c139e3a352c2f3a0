// Seams that go around things: each seam's path through its blend window chosen from the
// cameras' images of one instant, where the two views agree, with OpenCV's seam finders.
//
// The path becomes the seam's alpha map: its finest level gives side A's pixels weight 1 and
// side B's weight 0 (with a transition two pixels wide), and the coarser levels are reduced from
// it as the library's pyramid reduces images, so the blend still spreads low frequencies across
// the window while fine detail comes from one camera only. Nothing here uses GL.
#ifndef ZQAVS_CALIB_RIG_SEAMS_H
#define ZQAVS_CALIB_RIG_SEAMS_H

#include <opencv2/core.hpp>

#include <string>
#include <vector>

#include "rig.h"
#include "rig_layout.h"

namespace zqavs_calib {

// Straight keeps the ramp across the window that a calibration without images gets.
enum class SeamFinder { GraphCut, DynamicProgramming, Straight };

// What the two cameras of a seam show in its window, as their meshes remap them (the exact
// models the meshes interpolate): window-sized, of the images' type. `images` holds one image
// per camera.
struct SeamViews {
    cv::Mat a;
    cv::Mat b;
};
SeamViews warpSeamViews(const Rig& rig, const zqavs_synth::Seam& window, const std::vector<cv::Mat>& images);

struct SeamChoice {
    zqavs_synth::Seam window;
    std::vector<int> path;              // per row: the first window column that shows side B
    double pathDisagreement = 0.0;      // mean grey-level difference of the two views beside the path
    double straightDisagreement = 0.0;  // the same beside the window's centre line
};

// Chooses the path of every seam of `calib` from one image per camera (8-bit, three channels,
// in the rig's order, each of its camera's size) and puts it into the seam's alpha map. False
// with *error when the images do not fit the rig.
bool chooseSeams(const Rig& rig, const std::vector<cv::Mat>& images, SeamFinder finder, RigCalibration* calib,
                 std::vector<SeamChoice>* choices, std::string* error);

// The path an alpha map's finest level draws: per row, the first column where side A's weight
// falls below one half (the width when it never does).
std::vector<int> alphaPath(const zqavs_synth::AlphaMap& map);

// One line per seam: the path's extent and the disagreement along it and along the centre line.
std::string seamReport(const std::vector<SeamChoice>& choices, SeamFinder finder);

}  // namespace zqavs_calib

#endif  // ZQAVS_CALIB_RIG_SEAMS_H
