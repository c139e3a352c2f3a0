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

// What a rig's cameras see of a scene.
struct Views {
    std::vector<zqavs_synth::Nv12Image> nv12;
    std::vector<cv::Mat> y;
};
Views renderViews(const zqavs_calib::Rig& rig, const zqavs_synth::RgbImage& scene);

// Y PSNR against the scene seen directly through `truth`'s panorama: of the library's panorama
// stitched from `views` with `calib`, and of an exact per-pixel remap of the same views through
// `truth`'s models (each panorama pixel sampled bilinearly from the camera that owns its column
// in `truthCalib`, exactly where the model puts its ray).
struct Psnrs {
    double library = 0, exact = 0;
};
Psnrs panoramaPsnrs(const zqavs_calib::Rig& truth, const zqavs_calib::RigCalibration& truthCalib,
                    const zqavs_calib::RigCalibration& calib, const zqavs_synth::RgbImage& scene, const Views& views);

}  // namespace rig_test

#endif  // ZQAVS_TESTS_RIG_FIXTURE_H
