// What cameras and an ideal stitcher see of a scene given as a sphere map.
#ifndef ZQAVS_CALIB_SCENE_RENDER_H
#define ZQAVS_CALIB_SCENE_RENDER_H

#include "rig.h"
#include "zqavs_synth.h"

namespace zqavs_calib {

// The scene is a sphere map (equirectangular, 360 x 180 degrees, any photo): column 0's left edge at
// azimuth -180, row 0's top edge at elevation -90 (y down), azimuth atan2(x, z), elevation asin(y).
// What a camera sees of the scene, sampled bilinearly (RGB, the camera's image size). Pixels no
// direction reaches (outside a fisheye's image circle) are black.
zqavs_synth::RgbImage renderCameraImage(const CameraSpec& camera, const zqavs_synth::RgbImage& scene);
// The panorama an ideal stitcher would show: the scene seen directly through every panorama pixel.
zqavs_synth::RgbImage renderPanorama(const PanoramaSpec& pano, const zqavs_synth::RgbImage& scene);

}  // namespace zqavs_calib

#endif  // ZQAVS_CALIB_SCENE_RENDER_H
