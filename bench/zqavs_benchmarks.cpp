// Google Benchmark measurements of the CPU set-up work and of whole frames on the machine's
// driver. Not part of the test suite: run build/bench/zqavs_benchmarks when measuring.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <new>

#include "gl_nv12_remap.h"
#include "stitch_session.h"
#include "zqavs_synth.h"
#include "zqgfx_gpu_avs_internal.h"

namespace {

zqavs_synth::RigConfig rigFor(int cameras)
{
    zqavs_synth::RigConfig rig;
    rig.cameras = cameras;
    rig.bld_width = (cameras * rig.src_width * 3 / 4) / 16 * 16;
    return rig;
}

// Triangle-strip generation of one 4096 x 720 panorama's worth of meshes.
void BM_StripGeneration(benchmark::State& state)
{
    zqavs_synth::Calibration calib;
    std::string error;
    zqavs_synth::generateCalibration(rigFor(4), &calib, &error);
    void* memory = calloc(1, sizeof(zqgfx_gpu_avs::ZQGL_Remap));
    auto* remap = new (memory) zqgfx_gpu_avs::ZQGL_Remap();
    std::vector<GLfloat> vertexes, texVertexes;
    for (auto _ : state) {
        for (const auto& camera : calib.meshes)
            for (const auto& mesh : camera) {
                const size_t floats = 2 * static_cast<size_t>(zqgfx_gpu_avs::stripVertexCount(mesh.width, mesh.height));
                vertexes.resize(floats);
                texVertexes.resize(floats);
                remap->vertexesValuationStripNew(const_cast<float*>(mesh.x.data()), const_cast<float*>(mesh.y.data()),
                                                 16, 16, mesh.width, mesh.height, 0, (mesh.width - 1) * 16,
                                                 (mesh.height - 1) * 16, 1280, 720, vertexes.data(), texVertexes.data());
                benchmark::DoNotOptimize(vertexes.data());
            }
    }
    remap->~ZQGL_Remap();
    free(memory);
}
BENCHMARK(BM_StripGeneration)->Unit(benchmark::kMicrosecond);

void BM_ParameterFile(benchmark::State& state)
{
    zqavs_synth::Calibration calib;
    std::string error;
    zqavs_synth::generateCalibration(rigFor(8), &calib, &error);
    char dir[] = "/tmp/zqavs-bench-XXXXXX";
    if (!mkdtemp(dir) || !zqavs_synth::writeCalibration(calib, dir, &error)) {
        state.SkipWithError("cannot write the calibration");
        return;
    }
    const std::string path = std::string(dir) + "/zq_ps_gpu_mesh_params.txt";
    for (auto _ : state) {
        PSR_INITPARAMS_T layout;
        benchmark::DoNotOptimize(readTxtParamsAVS(path, &layout));
    }
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_ParameterFile)->Unit(benchmark::kMicrosecond);

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
