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
    CLI::Option* dir = cmd->add_option("DIR", options.dir, "output directory (created when missing)");
    CLI::Option* out = cmd->add_option("-o,--out", options.dir, "the same as DIR");
    dir->excludes(out);
    addRigOptions(cmd, options.rig);
    CLI::Option* rig = cmd->add_option("--rig", options.rigFile,
                                       "render a real rig (rig file, JSON) seeing --scene, a 360x180 sphere map")
                           ->check(CLI::ExistingFile);
    // A rig file describes everything the synthetic rig's options would.
    for (const char* name : {"--cameras", "--source-size", "--panorama-size", "--step-x", "--step-y", "--bands",
                             "--alpha", "--overlap", "--gains", "--casts", "--profile"})
        rig->excludes(cmd->get_option(name));
    cmd->footer("Writes zq_ps_gpu_mesh_params.txt, the mesh and alpha files, camera<i>.nv12 / .png and scene.png.\n"
                "With --rig: camera<i>.nv12 / .png as the rig's cameras see the scene, and panorama.png, the\n"
                "panorama an ideal stitcher would show (no calibration: that is zqavs calib's job).\n"
                "Examples: zqavs synth calib --cameras 4 --gains 1,1.2,0.8,1\n"
                "          zqavs synth calib --cameras 2 --casts 1.05,1,0.95,1,1,1\n"
                "          zqavs synth --rig rig.json --scene sphere.jpg -o trial");
    cmd->callback([&options, &result] {
        if (options.dir.empty()) throw CLI::ValidationError("synth", "needs an output directory (DIR or -o DIR)");
        if (!options.rigFile.empty() && options.rig.scene.empty())
            throw CLI::ValidationError("synth", "--rig needs --scene PHOTO");
        result.code = options.rigFile.empty() ? runSynth(options) : runSynthRig(options);
    });
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
