// Google Benchmark measurements of set-up and of whole frames on the machine's
// driver. Not part of the test suite: run build/bench/zqavs_benchmarks when measuring.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "stitch_session.h"
#include "zqavs_synth.h"
#include "zqgfx_gpu_avs.h"

namespace {

zqavs_synth::RigConfig rigFor(int cameras)
{
    zqavs_synth::RigConfig rig;
    rig.cameras = cameras;
    rig.bld_width = (cameras * rig.src_width * 3 / 4) / 16 * 16;
    return rig;
}

// Set-up from a calibration directory (parameter file, meshes, strip generation, shaders) and
// tear-down, through the public entry points.
void BM_InitFromFiles(benchmark::State& state)
{
    const zqavs_synth::RigConfig rig = rigFor(static_cast<int>(state.range(0)));
    zqavs_synth::Calibration calib;
    std::string error;
    char dir[] = "/tmp/zqavs-bench-XXXXXX";
    if (!zqavs_synth::generateCalibration(rig, &calib, &error) || !mkdtemp(dir) ||
        !zqavs_synth::writeCalibration(calib, dir, &error)) {
        state.SkipWithError("cannot write the calibration");
        return;
    }
    zqavs::StitchSetup setup;
    setup.calibDir = dir;
    setup.rig = rig;
    for (auto _ : state) {
        zqavs::StitchSession session;
        if (!session.init(setup, &error)) {
            state.SkipWithError(error.c_str());
            break;
        }
    }
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_InitFromFiles)->Arg(4)->Unit(benchmark::kMillisecond);

// One whole frame (import or upload, remap, pyramids, blend, write-back) of N 1280x720 cameras.
void BM_StitchFrame(benchmark::State& state)
{
    const zqavs_synth::RigConfig rig = rigFor(static_cast<int>(state.range(0)));
    zqavs_synth::Calibration calib;
    zqavs_synth::BufferModeCalibration buffers;
    std::string error;
    if (!zqavs_synth::generateCalibration(rig, &calib, &error) || !buffers.build(calib, false, &error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    zqavs::StitchSetup setup;
    setup.buffers = &buffers;
    setup.rig = rig;
    zqavs::StitchSession session;
    if (!session.init(setup, &error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    double ms = 0;
    session.frame(&ms, &error);  // warm: shaders, imports
    for (auto _ : state) {
        if (!session.frame(&ms, &error)) {
            state.SkipWithError(error.c_str());
            return;
        }
        state.SetIterationTime(ms / 1000.0);
    }
    state.SetLabel(ZQGFX_AVS_get_path());
}
BENCHMARK(BM_StitchFrame)->Arg(2)->Arg(4)->Arg(8)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
