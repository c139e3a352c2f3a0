// zqavs bench: frames per second and per-stage times for common rigs.
#include <chrono>
#include <cstdio>
#include <fstream>

#include <nlohmann/json.hpp>

#include "opencv_pipeline.h"
#include "stitch_session.h"
#include "tool_common.h"
#include "zqgfx_gpu_avs.h"

namespace zqavs {
namespace {

struct BenchRow {
    int cameras = 0;
    int srcWidth = 0, srcHeight = 0, bldWidth = 0, bldHeight = 0;
    double frameMs = 0.0;
    double uncompensatedMs = 0.0;  // the frame without compensation, when it is on
    double opencvMs = 0.0;  // the OpenCV pipeline on the same rig, when asked for
    double opencvAgreementDb = 0.0;  // PSNR of its luma against the library's
    ZQGFX_AVS_STAGE_TIMES_T stages{};
    std::string error;
    std::string path;  // rendering path the rig ran on
};

// A rig of `cameras` cameras at the given source size; the panorama keeps 4/5 of each camera's
// width and the seams are 1/5 of it, rounded to the mesh step (4 x 1280x720 gives 4096x720 with
// seams of 256 columns).
zqavs_synth::RigConfig benchRig(int cameras, int width, int height, int step)
{
    zqavs_synth::RigConfig rig;
    rig.cameras = cameras;
    rig.src_width = width;
    rig.src_height = height;
    rig.step_x = rig.step_y = step;
    rig.bld_width = (cameras * width * 4 / 5) / 16 * 16;
    rig.bld_height = height / 16 * 16;
    rig.overlap_width = width / 5 / 16 * 16;
    return rig;
}

// Median time of the OpenCV pipeline; *agreementDb is how close its luma comes to `library`'s.
double opencvFrameMs(const zqavs_synth::Calibration& calib, const std::vector<zqavs_synth::Nv12Image>& cameras,
                     int frames, const zqavs_synth::Nv12View& library, double* agreementDb)
{
    OpenCvPipeline pipeline(calib);
    zqavs_synth::Nv12Image output;
    output.width = calib.rig.bld_width;
    output.height = calib.rig.bld_height;
    output.stride = zqavs_synth::nv12Stride(output.width);
    output.data.resize(zqavs_synth::nv12Bytes(output.width, output.height));
    pipeline.stitch(cameras, output);  // warm-up, as for the library
    std::vector<double> times;
    for (int f = 0; f < frames; ++f) {
        const auto start = std::chrono::steady_clock::now();
        pipeline.stitch(cameras, output);
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    *agreementDb = zqavs_synth::psnr(zqavs_synth::lumaPlane(output.view()), zqavs_synth::lumaPlane(library),
                                     zqavs_synth::coveredColumns(calib.layout));
    return medianOf(times);
}

// Median wall-clock time of `frames` frames.
bool timeFrames(StitchSession& session, int frames, double* medianMs, std::string* error)
{
    std::vector<double> times;
    for (int f = 0; f < frames; ++f) {
        double ms = 0.0;
        if (!session.frame(&ms, error)) return false;
        times.push_back(ms);
    }
    *medianMs = medianOf(times);
    return true;
}

void runRow(BenchRow& row, const BenchOptions& options)
{
    const int frames = options.frames;
    const int compensation = compensationModeOf(options.compensate);
    zqavs_synth::RigConfig rig = benchRig(row.cameras, row.srcWidth, row.srcHeight, options.step);
    row.bldWidth = rig.bld_width;
    row.bldHeight = rig.bld_height;
    zqavs_synth::Calibration calib;
    zqavs_synth::BufferModeCalibration buffers;
    if (!zqavs_synth::generateCalibration(rig, &calib, &row.error) || !buffers.build(calib, false, &row.error)) return;
    StitchSetup setup;
    setup.buffers = &buffers;
    setup.rig = rig;
    StitchSession session;
    if (!session.init(setup, &row.error)) return;
    row.path = ZQGFX_AVS_get_path();
    const zqavs_synth::RgbImage scene = zqavs_synth::makeScene(rig);
    std::vector<zqavs_synth::Nv12Image> cameras;
    for (int c = 0; c < rig.cameras; ++c) cameras.push_back(zqavs_synth::renderCamera(calib, c, scene));
    for (int c = 0; c < rig.cameras; ++c) session.setInput(c, cameras[c]);
    double ms = 0.0;
    if (!session.frame(&ms, &row.error)) return;  // warm-up: shader compilation, first imports
    if (compensation != 0) {
        // The same instance without, then with compensation, for a ratio free of other changes.
        if (!timeFrames(session, frames, &row.uncompensatedMs, &row.error)) return;
        if (!session.setCompensation(compensation, kVideoSmoothing, &row.error)) return;
        if (!session.frame(&ms, &row.error)) return;  // warm-up of the compensating programs
    }
    if (!timeFrames(session, frames, &row.frameMs, &row.error)) return;
    std::vector<double> imports, remaps, pyramids, blends, finishes;
    for (int f = 0; f < frames; ++f) {
        ZQGFX_AVS_STAGE_TIMES_T stages{};
        if (!session.profileFrame(&stages, &row.error)) return;
        imports.push_back(stages.import_ms);
        remaps.push_back(stages.remap_ms);
        pyramids.push_back(stages.pyramid_ms);
        blends.push_back(stages.blend_ms);
        finishes.push_back(stages.finish_ms);
        row.stages.gpu_timers = stages.gpu_timers;
        // The work is the same every frame of a rig; the last frame's counts stand for all.
        row.stages.render_passes = stages.render_passes;
        row.stages.draw_calls = stages.draw_calls;
        row.stages.triangles = stages.triangles;
        row.stages.fragments = stages.fragments;
    }
    row.stages.import_ms = medianOf(imports);
    row.stages.remap_ms = medianOf(remaps);
    row.stages.pyramid_ms = medianOf(pyramids);
    row.stages.blend_ms = medianOf(blends);
    row.stages.finish_ms = medianOf(finishes);
    if (options.opencv)
        row.opencvMs = opencvFrameMs(calib, cameras, frames, session.outputView(), &row.opencvAgreementDb);
}

}  // namespace

void addBenchCommand(CLI::App& app, BenchOptions& options, ToolResult& result)
{
    CLI::App* cmd = app.add_subcommand("bench", "Measure frames per second and per-stage times");
    cmd->add_option("--frames", options.frames, "frames measured per rig (median)")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    cmd->add_option("--cameras", options.cameras, "camera counts")->delimiter(',')->check(CLI::Range(2, 10));
    cmd->add_option("--sizes", options.sizes, "camera image sizes WxH")->delimiter(',');
    cmd->add_option("--json", options.json, "also write the table as JSON into this file");
    cmd->add_option("--step", options.step, "mesh node spacing of the rigs, in panorama pixels")
        ->check(CLI::Range(4, 64))
        ->capture_default_str();
    cmd->add_option("--compensate", options.compensate,
                    "exposure compensation of the timed frames; when on, the same instance is first timed without")
        ->check(CLI::IsMember(compensationModeNames()))
        ->capture_default_str();
    cmd->add_flag("--opencv", options.opencv,
                  "also time the OpenCV pipeline (cv::remap per camera, MultiBandBlender per seam) on each rig");
    cmd->footer("Stages are timed with GPU timer queries where the driver has them, else finish-bracketed (the "
                "GPU is drained between stages, so their sum exceeds a pipelined frame).\nExample: zqavs bench "
                "--cameras 4 --sizes 1280x720 --frames 20 --opencv");
    cmd->callback([&options, &result] { result.code = runBench(options); });
}

int runBench(const BenchOptions& options)
{
    std::vector<BenchRow> rows;
    for (const std::string& size : options.sizes) {
        int width = 0, height = 0;
        if (!parseSize(size, &width, &height)) {
            fprintf(stderr, "zqavs bench: --sizes: expected WxH, got '%s'\n", size.c_str());
            return kExitUsage;
        }
        for (int cameras : options.cameras) {
            BenchRow row;
            row.cameras = cameras;
            row.srcWidth = width;
            row.srcHeight = height;
            rows.push_back(row);
        }
    }
    Progress progress("benchmarking rig");
    for (size_t i = 0; i < rows.size(); ++i) {
        runRow(rows[i], options);
        progress.update(static_cast<int>(i + 1), static_cast<int>(rows.size()));
    }
    const bool compensated = options.compensate != "off";
    printf("%s, %d frames per rig, compensation %s, medians in ms\n",
           pathLine(rows.empty() ? nullptr : rows[0].path.c_str()).c_str(), options.frames,
           options.compensate.c_str());
    printf("%-4s %-10s %-11s %8s %7s %8s %8s %8s %8s %8s", "cams", "source", "panorama", "frame", "fps", "import",
           "remap", "pyramid", "blend", "finish");
    printf(" %6s %5s %9s %11s", "passes", "draws", "triangles", "fragments");
    if (compensated) printf(" %8s %8s", "off", "comp/off");
    printf(options.opencv ? " %8s %7s %7s\n" : "\n", "opencv", "ratio", "same dB");
    nlohmann::json json = nlohmann::json::array();
    bool failed = false;
    for (const BenchRow& row : rows) {
        const std::string source = std::to_string(row.srcWidth) + "x" + std::to_string(row.srcHeight);
        const std::string pano = std::to_string(row.bldWidth) + "x" + std::to_string(row.bldHeight);
        if (!row.error.empty()) {
            printf("%-4d %-10s %-11s failed: %s\n", row.cameras, source.c_str(), pano.c_str(), row.error.c_str());
            failed = true;
            continue;
        }
        const double fps = row.frameMs > 0 ? 1000.0 / row.frameMs : 0.0;
        printf("%-4d %-10s %-11s %8.2f %7.1f %8.2f %8.2f %8.2f %8.2f %8.2f", row.cameras, source.c_str(),
               pano.c_str(), row.frameMs, fps, row.stages.import_ms, row.stages.remap_ms, row.stages.pyramid_ms,
               row.stages.blend_ms, row.stages.finish_ms);
        printf(" %6lld %5lld %9lld %11lld", static_cast<long long>(row.stages.render_passes),
               static_cast<long long>(row.stages.draw_calls), static_cast<long long>(row.stages.triangles),
               static_cast<long long>(row.stages.fragments));
        if (compensated) printf(" %8.2f %8.2f", row.uncompensatedMs, row.frameMs / row.uncompensatedMs);
        if (options.opencv)
            printf(" %8.2f %7.2f %7.1f", row.opencvMs, row.frameMs / row.opencvMs, row.opencvAgreementDb);
        printf("\n");
        nlohmann::json entry = {{"cameras", row.cameras},
                                {"source", source},
                                {"panorama", pano},
                                {"frame_ms", row.frameMs},
                                {"fps", fps},
                                {"import_ms", row.stages.import_ms},
                                {"remap_ms", row.stages.remap_ms},
                                {"pyramid_ms", row.stages.pyramid_ms},
                                {"blend_ms", row.stages.blend_ms},
                                {"finish_ms", row.stages.finish_ms},
                                {"gpu_timers", row.stages.gpu_timers},
                                {"render_passes", row.stages.render_passes},
                                {"draw_calls", row.stages.draw_calls},
                                {"triangles", row.stages.triangles},
                                {"fragments", row.stages.fragments},
                                {"mesh_step", options.step},
                                {"compensation", options.compensate}};
        if (compensated) {
            entry["uncompensated_frame_ms"] = row.uncompensatedMs;
            entry["compensation_ratio"] = row.frameMs / row.uncompensatedMs;
        }
        if (options.opencv) {
            entry["opencv_ms"] = row.opencvMs;
            entry["ratio"] = row.frameMs / row.opencvMs;
            entry["opencv_luma_psnr_db"] = row.opencvAgreementDb;
        }
        json.push_back(entry);
    }
    if (compensated)
        printf("off: the frame of the same instance without compensation, timed just before; comp/off: frame "
               "over off\n");
    if (options.opencv)
        printf("ratio: the library's frame over the OpenCV pipeline's, both medians of this run; same dB: PSNR of "
               "the two panoramas' luma\n");
    printf("stage times: %s; passes, draws, triangles and fragments (an output fragment draws 4 luma pixels or 2 CbCr pairs) of one frame\n",
           rows.empty() || !rows[0].stages.gpu_timers ? "finish-bracketed wall clock" : "GPU timer queries");
    if (!options.json.empty()) {
        std::ofstream out(options.json);
        out << json.dump(2) << "\n";
        if (!out.good()) {
            fprintf(stderr, "zqavs bench: cannot write %s\n", options.json.c_str());
            return kExitFailure;
        }
    }
    return failed ? kExitFailure : kExitSuccess;
}

}  // namespace zqavs
