// zqavs synth --rig RIG.json --scene PHOTO -o DIR: what a real rig's cameras would see.
#include <cstdio>

#include "rig.h"
#include "scene_render.h"
#include "tool_common.h"

namespace zqavs {

namespace {

bool writeRgbPng(const std::string& path, const zqavs_synth::RgbImage& image, std::string* error)
{
    if (writePng(path, image.rgb.data(), image.width, image.height)) return true;
    *error = "cannot write " + path;
    return false;
}

bool writeRigImages(const zqavs_calib::Rig& rig, const zqavs_synth::RgbImage& scene, const std::string& dir,
                    std::string* error)
{
    std::vector<zqavs_synth::RgbImage> views;
    std::vector<zqavs_synth::Nv12Image> cameras;
    for (const zqavs_calib::CameraSpec& camera : rig.cameras) {
        views.push_back(zqavs_calib::renderCameraImage(camera, scene));
        cameras.push_back(zqavs_synth::rgbToNv12(views.back()));
    }
    if (!zqavs_synth::writeCameraImages(cameras, dir, error)) return false;
    for (size_t c = 0; c < views.size(); ++c)
        if (!writeRgbPng(dir + "/camera" + std::to_string(c) + ".png", views[c], error)) return false;
    return writeRgbPng(dir + "/panorama.png", zqavs_calib::renderPanorama(rig.panorama, scene), error);
}

}  // namespace

int runSynthRig(const SynthOptions& options)
{
    std::string error;
    zqavs_calib::Rig rig;
    if (!zqavs_calib::loadRig(options.rigFile, &rig, &error)) {
        fprintf(stderr, "zqavs synth: %s\n", error.c_str());
        return kExitFailure;
    }
    zqavs_synth::RgbImage scene;
    if (!readImage(options.rig.scene, scene.rgb, &scene.width, &scene.height)) {
        fprintf(stderr, "zqavs synth: --scene: cannot read '%s' as PNG or JPEG\n", options.rig.scene.c_str());
        return kExitFailure;
    }
    if (!writeRigImages(rig, scene, options.dir, &error)) {
        fprintf(stderr, "zqavs synth: %s\n", error.c_str());
        return kExitFailure;
    }
    const zqavs_calib::CameraSpec& first = rig.cameras.front();
    printf("wrote %s: %zu cameras %dx%d seeing %s, ideal panorama %dx%d\n", options.dir.c_str(), rig.cameras.size(),
           first.image_width, first.image_height, options.rig.scene.c_str(), rig.panorama.width,
           rig.panorama.height);
    return kExitSuccess;
}

}  // namespace zqavs
