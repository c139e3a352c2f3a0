// zqavs synth DIR: write a synthetic calibration directory and its camera images.
#include <cstdio>

#include "rig_options.h"
#include "tool_common.h"

namespace zqavs {

bool writeNv12AsPng(const std::string& path, const zqavs_synth::Nv12View& image)
{
    const zqavs_synth::RgbImage rgb = zqavs_synth::nv12ToRgb(image);
    return writePng(path, rgb.rgb.data(), rgb.width, rgb.height);
}

bool writeSynthDirectory(const zqavs_synth::Calibration& calib, const std::string& dir, std::string* error)
{
    if (!zqavs_synth::writeCalibration(calib, dir, error)) return false;
    const zqavs_synth::RgbImage scene = zqavs_synth::makeScene(calib.rig);
    std::vector<zqavs_synth::Nv12Image> cameras;
    for (int c = 0; c < calib.rig.cameras; ++c) cameras.push_back(zqavs_synth::renderCamera(calib, c, scene));
    if (!zqavs_synth::writeCameraImages(cameras, dir, error)) return false;
    for (int c = 0; c < calib.rig.cameras; ++c) {
        const std::string path = dir + "/camera" + std::to_string(c) + ".png";
        if (!writeNv12AsPng(path, cameras[c].view())) {
            *error = "cannot write " + path;
            return false;
        }
    }
    const std::string scenePath = dir + "/scene.png";
    if (!writePng(scenePath, scene.rgb.data(), scene.width, scene.height)) {
        *error = "cannot write " + scenePath;
        return false;
    }
    return true;
}

void addSynthCommand(CLI::App& app, SynthOptions& options, ToolResult& result)
{
    CLI::App* cmd = app.add_subcommand("synth", "Write a synthetic calibration directory and camera images");
    cmd->add_option("DIR", options.dir, "output directory (created when missing)")->required();
    addRigOptions(cmd, options.rig);
    cmd->footer("Writes zq_ps_gpu_mesh_params.txt, the mesh and alpha files, camera<i>.nv12 / .png and scene.png.\n"
                "Example: zqavs synth calib --cameras 4 --gains 1,1.2,0.8,1");
    cmd->callback([&options, &result] { result.code = runSynth(options); });
}

int runSynth(SynthOptions& options)
{
    std::string error;
    if (!resolveRig(options.rig, &error)) {
        fprintf(stderr, "zqavs synth: %s\n", error.c_str());
        return kExitUsage;
    }
    zqavs_synth::Calibration calib;
    if (!zqavs_synth::generateCalibration(options.rig.rig, &calib, &error) ||
        !writeSynthDirectory(calib, options.dir, &error)) {
        fprintf(stderr, "zqavs synth: %s\n", error.c_str());
        return kExitFailure;
    }
    const auto& rig = options.rig.rig;
    printf("wrote %s: %d cameras %dx%d -> panorama %dx%d, %zu seams, %s alpha, %d levels\n", options.dir.c_str(),
           rig.cameras, rig.src_width, rig.src_height, rig.bld_width, rig.bld_height, calib.seams.size(),
           rig.alpha_type == zqavs_synth::AlphaType::U8 ? "U8" : "float", rig.band_num + 1);
    return kExitSuccess;
}

}  // namespace zqavs
