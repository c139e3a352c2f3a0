// zqavs check CALIB_DIR: lint a calibration directory.
#include <opencv2/imgcodecs.hpp>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "calib_check.h"
#include "rig_layout.h"
#include "rig_seams.h"
#include "tool_common.h"

namespace zqavs {

namespace {

// A blended seam's path, where its alpha map's finest level crosses one half; empty when the
// file holds neither a U8 nor a float map of the seam.
std::vector<int> seamPath(const std::string& dir, const SeamPlan& seam)
{
    std::ifstream in(dir + "/" + zqavs_calib_core::alphaFileName(seam.camera, seam.neighbour), std::ios::binary);
    zqavs_synth::AlphaMap map{seam.camera, seam.neighbour, seam.width, seam.height, seam.levels,
                              zqavs_synth::AlphaType::U8,
                              {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()}};
    const size_t elements = zqavs_calib_core::alphaElementCount(seam.width, seam.height, seam.levels);
    if (map.bytes.size() == elements * sizeof(float))
        map.type = zqavs_synth::AlphaType::Float;
    else if (map.bytes.size() != elements)
        return {};
    return zqavs_calib::alphaPath(map);
}

}  // namespace

void addCheckCommand(CLI::App& app, CheckOptions& options, ToolResult& result)
{
    CLI::App* cmd = app.add_subcommand("check", "Lint a calibration directory and show its blend plan");
    cmd->add_option("CALIB_DIR", options.dir, "calibration directory")->required()->check(CLI::ExistingDirectory);
    cmd->add_option("--cameras", options.cameras, "check this many camera sections (as numView would)")
        ->check(CLI::Range(1, zqavs_calib_core::kMaxCameras));
    cmd->add_option("--overlay", options.overlay, "write the layout (blocks, seams, cameras) as a PNG");
    cmd->callback([&options, &result] { result.code = runCheck(options); });
}

int runCheck(const CheckOptions& options)
{
    const CheckReport report = checkCalibration(options.dir, options.cameras);
    for (const Finding& f : report.findings) {
        if (f.line > 0)
            printf("%s: %s:%d: %s\n", f.severity == Finding::Error ? "error" : "warning", f.file.c_str(), f.line,
                   f.message.c_str());
        else
            printf("%s: %s: %s\n", f.severity == Finding::Error ? "error" : "warning", f.file.c_str(),
                   f.message.c_str());
    }
    if (!report.plan.empty()) printf("blend plan:\n");
    for (const SeamPlan& seam : report.plan) {
        if (seam.blended)
            printf("  camera %d -> %d: blended, columns %d..%d (%d wide, %d high, %d levels): %s\n", seam.camera,
                   seam.neighbour, seam.startx, seam.startx + seam.width, seam.width, seam.height, seam.levels,
                   seam.reason.c_str());
        else
            printf("  camera %d -> %d: not blended: %s\n", seam.camera, seam.neighbour, seam.reason.c_str());
    }
    if (!options.overlay.empty()) {
        // The same picture as `zqavs calib --overlay`, with the seams the library will blend and
        // their paths as the alpha maps draw them.
        std::vector<zqavs_synth::Seam> blended;
        std::vector<std::vector<int>> paths;
        for (const SeamPlan& seam : report.plan) {
            if (!seam.blended) continue;
            blended.push_back({seam.camera, seam.neighbour, seam.startx, seam.width});
            paths.push_back(seamPath(options.dir, seam));
        }
        if (!cv::imwrite(options.overlay, zqavs_calib::drawLayoutOverlay(report.layout, blended, paths))) {
            fprintf(stderr, "zqavs check: cannot write %s\n", options.overlay.c_str());
            return kExitFailure;
        }
        printf("layout drawn into %s\n", options.overlay.c_str());
    }
    const int errors = report.count(Finding::Error), warnings = report.count(Finding::Warning);
    printf("check: %d error%s, %d warning%s\n", errors, errors == 1 ? "" : "s", warnings, warnings == 1 ? "" : "s");
    return errors > 0 ? kExitFailure : kExitSuccess;
}

}  // namespace zqavs
