// Shared pieces of the real-rig tests: two small rigs, scenes, and the stitched panorama set
// against an exact per-pixel remap of the same camera images.
#ifndef ZQAVS_TESTS_RIG_FIXTURE_H
#define ZQAVS_TESTS_RIG_FIXTURE_H

#include <opencv2/core.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "rig.h"
#include "rig_layout.h"
#include "zqavs_synth.h"

namespace rig_test {

// A camera whose optical axis points at azimuth `yaw_deg` on the horizon.
zqavs_calib::CameraSpec camera(zqavs_calib::LensModel model, double yaw_deg, double focal, std::vector<double> D);
// Three fisheyes around the horizon; camera 0 looks at the panorama's edge, so it owns both
// ends and every seam, the wrap-around one included, is blended.
zqavs_calib::Rig fisheyeRing();
// Three pinholes with barrel distortion side by side on a cylinder.
zqavs_calib::Rig pinholeFan();

// A sphere map with features at every scale: octaves of smooth noise under random shapes.
zqavs_synth::RgbImage makeTexturedScene(int width, int height, uint64_t seed);

cv::Mat lumaOf(const zqavs_synth::RgbImage& image);
zqavs_synth::PlaneView planeOf(const cv::Mat& y);

// Every panorama pixel sampled bilinearly from the camera that owns its column, at exactly
// where the camera's model puts its ray.
cv::Mat exactRemap(const zqavs_calib::Rig& rig, const zqavs_calib::RigCalibration& calib,
                   const std::vector<cv::Mat>& cameraY);
// The panorama's Y as the library stitches it from a calibration written to `dir`.
cv::Mat stitch(const zqavs_calib::RigCalibration& calib, const std::string& dir,
               const std::vector<zqavs_synth::Nv12Image>& inputs);

}  // namespace rig_test

#endif  // ZQAVS_TESTS_RIG_FIXTURE_H
