#include "rig_options.h"

#include <cstdio>

#include "tool_common.h"

namespace zqavs {

bool parseSize(const std::string& text, int* width, int* height)
{
    char tail = 0;
    return sscanf(text.c_str(), "%dx%d%c", width, height, &tail) == 2 && *width > 0 && *height > 0;
}

void addRigOptions(CLI::App* cmd, RigOptions& options)
{
    zqavs_synth::RigConfig& rig = options.rig;
    cmd->add_option("--cameras", rig.cameras, "number of cameras")->check(CLI::Range(1, 10))->capture_default_str();
    cmd->add_option("--source-size", options.sourceSize, "camera image size WxH")->capture_default_str();
    cmd->add_option("--panorama-size", options.panoramaSize, "panorama size WxH")->capture_default_str();
    cmd->add_option("--step-x", rig.step_x, "mesh step across, in panorama pixels")->capture_default_str();
    cmd->add_option("--step-y", rig.step_y, "mesh step down, in panorama pixels")->capture_default_str();
    cmd->add_option("--bands", rig.band_num, "band_num of the layout (the blend uses one level more)")
        ->check(CLI::Range(0, 8))
        ->capture_default_str();
    cmd->add_option("--alpha", options.alpha, "alpha map element type")
        ->check(CLI::IsMember({"u8", "float"}))
        ->capture_default_str();
    cmd->add_option("--overlap", rig.overlap_width, "overlap width in panorama pixels")->capture_default_str();
    cmd->add_option("--gains", rig.gains, "per-camera exposure gains, e.g. 1,1.2,0.9,1")->delimiter(',');
    cmd->add_option("--casts", rig.casts, "per-camera white-balance casts, R,G,B for each camera in turn")
        ->delimiter(',');
    cmd->add_option("--profile", options.profile, "seam alpha profile")
        ->check(CLI::IsMember({"ramp", "step"}))
        ->capture_default_str();
    cmd->add_option("--scene", options.scene, "scene panorama from a PNG or JPEG file (default: built-in pattern)")
        ->check(CLI::ExistingFile);
}

bool resolveRig(RigOptions& options, std::string* error)
{
    zqavs_synth::RigConfig& rig = options.rig;
    if (!parseSize(options.sourceSize, &rig.src_width, &rig.src_height)) {
        *error = "--source-size: expected WxH, got '" + options.sourceSize + "'";
        return false;
    }
    if (!parseSize(options.panoramaSize, &rig.bld_width, &rig.bld_height)) {
        *error = "--panorama-size: expected WxH, got '" + options.panoramaSize + "'";
        return false;
    }
    rig.alpha_type = options.alpha == "float" ? zqavs_synth::AlphaType::Float : zqavs_synth::AlphaType::U8;
    rig.seam_profile = options.profile == "step" ? zqavs_synth::SeamProfile::Step : zqavs_synth::SeamProfile::LinearRamp;
    if (!options.scene.empty()) {
        zqavs_synth::RgbImage& image = rig.scene_image;
        if (!readImage(options.scene, image.rgb, &image.width, &image.height)) {
            *error = "--scene: cannot read '" + options.scene + "' as PNG or JPEG";
            return false;
        }
    }
    if (!rig.gains.empty() && static_cast<int>(rig.gains.size()) != rig.cameras) {
        *error = "--gains: " + std::to_string(rig.gains.size()) + " values for " + std::to_string(rig.cameras) +
                 " cameras";
        return false;
    }
    if (!rig.casts.empty() && static_cast<int>(rig.casts.size()) != 3 * rig.cameras) {
        *error = "--casts: " + std::to_string(rig.casts.size()) + " values for " + std::to_string(rig.cameras) +
                 " cameras (R, G, B each)";
        return false;
    }
    const std::string problem = zqavs_synth::validateRig(rig);
    if (!problem.empty()) {
        *error = problem;
        return false;
    }
    return true;
}

}  // namespace zqavs
