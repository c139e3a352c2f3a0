// The cameras' rotations of a rig recovered from their own images of any textured scene.
//
// Features are matched between neighbouring cameras where the given rotations predict their
// common view, turned into rays through each camera's model, fitted with a robust rotation per
// pair, then all rotations but camera 0's (the anchor) are refined together so that matched rays
// agree. The intrinsics are never changed. Nothing here uses GL.
#ifndef ZQAVS_CALIB_RIG_REFINE_H
#define ZQAVS_CALIB_RIG_REFINE_H

#include <opencv2/core.hpp>

#include <string>
#include <vector>

#include "rig.h"

namespace zqavs_calib {

enum class FeatureDetector { Sift, Akaze, Orb };

struct RefineOptions {
    FeatureDetector detector = FeatureDetector::Sift;
    double maxInitialErrorDeg = 5.0;   // how far off a given rotation may be
    double inlierThresholdPx = 2.0;    // reprojection error of a matched pair that still agrees
    int minInliers = 20;               // fewer and the pair is not trusted
};

// Median and 95th percentile of the reprojection errors of a pair's inliers, in pixels.
struct ErrorStats {
    double median = 0.0;
    double p95 = 0.0;
};

struct PairRefinement {
    int left = 0;      // the cameras are neighbours, `right` following `left` in the panorama
    int right = 0;
    int matches = 0;
    int inliers = 0;
    bool trusted = false;
    ErrorStats before;
    ErrorStats after;
};

struct RigRefinement {
    Rig rig;                              // the rig with its refined rotations
    std::vector<int> features;            // per camera
    std::vector<double> correctionDeg;    // per camera: the angle between given and refined R
    std::vector<bool> keptGiven;          // per camera: kept its given rotation
    std::vector<PairRefinement> pairs;
    std::vector<std::string> warnings;
};

// Refines the rotations of `rig` from one 8-bit grey image per camera, in the rig's order and
// of each camera's image size. False with *error saying why when no pair of neighbours can be
// trusted or the images do not fit the rig.
bool refineRig(const Rig& rig, const std::vector<cv::Mat>& images, RigRefinement* out, std::string* error,
               const RefineOptions& options = {});

// Per camera the correction, per pair the inliers and the errors before and after, then the
// warnings.
std::string refinementReport(const RigRefinement& refinement);

}  // namespace zqavs_calib

#endif  // ZQAVS_CALIB_RIG_REFINE_H
