// Command-line options that describe a synthetic rig, shared by `synth`, `demo` and `bench`.
#ifndef ZQAVS_RIG_OPTIONS_H
#define ZQAVS_RIG_OPTIONS_H

#include <CLI/CLI.hpp>

#include <string>

#include "zqavs_synth.h"

namespace zqavs {

struct RigOptions {
    zqavs_synth::RigConfig rig;
    std::string sourceSize = "1280x720";
    std::string panoramaSize = "4096x720";
    std::string alpha = "u8";
    std::string profile = "ramp";
    std::string scene;  // PNG/JPEG file; empty: the built-in pattern
};

void addRigOptions(CLI::App* cmd, RigOptions& options);
// Turns the text options into the rig; false with *error naming the option at fault.
bool resolveRig(RigOptions& options, std::string* error);
bool parseSize(const std::string& text, int* width, int* height);

}  // namespace zqavs

#endif  // ZQAVS_RIG_OPTIONS_H
