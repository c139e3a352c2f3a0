// zqavs: synthetic calibrations, stitching, calibration checks and benchmarks for libzqgfx_avs.
#include "tool_common.h"

int main(int argc, char** argv)
{
    using namespace zqavs;
    CLI::App app{"zqavs: try, check and measure the libzqgfx_avs panorama stitcher"};
    app.require_subcommand(1);
    ToolResult result;
    DemoOptions demo;
    SynthOptions synth;
    StitchOptions stitch;
    CheckOptions check;
    BenchOptions bench;
    SoakOptions soak;
    CalibOptions calib;
    IntrinsicsOptions intrinsics;
    addDemoCommand(app, demo, result);
    addSynthCommand(app, synth, result);
    addStitchCommand(app, stitch, result);
    addCheckCommand(app, check, result);
    addBenchCommand(app, bench, result);
    addSoakCommand(app, soak, result);
    addCalibCommand(app, calib, intrinsics, result);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return kExitUsage;
    }
    return result.code;
}
