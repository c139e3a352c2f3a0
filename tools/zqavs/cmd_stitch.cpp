// zqavs stitch CALIB_DIR IMAGES... -o OUT: stitch camera images with a calibration directory.
#include <cstdio>
#include <fstream>

#include "calib_loader.h"
#include "stitch_session.h"
#include "tool_common.h"

namespace zqavs {
namespace {

bool writeOutput(const std::string& path, const zqavs_synth::Nv12View& view, std::string* error)
{
    if (endsWith(path, ".png")) {
        if (writeNv12AsPng(path, view)) return true;
    } else {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(view.data),
                  static_cast<std::streamsize>(zqavs_synth::nv12Bytes(view.width, view.height)));
        if (out.good()) return true;
    }
    *error = "cannot write " + path;
    return false;
}

// Still images may take the whole estimate at once; the frames stop once the gains do.
constexpr float kStillImageSmoothing = 1.0f;
constexpr int kMaxSettleFrames = 50;

// Turns compensation on and stitches until it settles, counting the frames in *frames. Where the
// path has none, says so and leaves the frames uncompensated: *mode becomes "off". False only
// when a frame fails.
bool startCompensation(StitchSession& session, std::string* mode, int* frames, std::string* error)
{
    if (*mode == "off") return true;
    if (!session.setCompensation(compensationModeOf(*mode), kStillImageSmoothing, error)) {
        fprintf(stderr, "zqavs stitch: --compensate %s: %s; stitching without it\n", mode->c_str(), error->c_str());
        *mode = "off";
        return true;
    }
    bool settled = false;
    *frames = session.settleCompensation(kMaxSettleFrames, &settled, error);
    if (*frames < 0) return false;
    if (!settled) fprintf(stderr, "zqavs stitch: the gains still moved after %d frames\n", *frames);
    return true;
}

}  // namespace

void addStitchCommand(CLI::App& app, StitchOptions& options, ToolResult& result)
{
    CLI::App* cmd = app.add_subcommand("stitch", "Stitch camera images with a calibration directory");
    cmd->add_option("CALIB_DIR", options.calibDir, "calibration directory")->required()->check(CLI::ExistingDirectory);
    cmd->add_option("IMAGES", options.images, "one image per camera: PNG/JPEG, or raw NV12 (.nv12/.yuv)")
        ->required()
        ->check(CLI::ExistingFile);
    cmd->add_option("-o,--output", options.outputs, "panorama file(s): .png and/or raw NV12 (.nv12/.yuv)")->required();
    cmd->add_option("--frames", options.frames,
                    "stitch this many frames (timing); with compensation on, after it has settled")
        ->check(CLI::Range(1, 100000));
    cmd->add_flag("--sync", options.sync, "end frames with a flush and wait on a fence instead of a finish");
    cmd->add_option("--resize", options.resize, "resize the panorama to WxH (narrower, same height) before stitching");
    cmd->add_flag("--buffer-mode", options.bufferMode, "load the calibration into memory and use buffer mode");
    cmd->add_option("--alpha", options.alpha, "alpha element type")->check(CLI::IsMember({"auto", "u8", "float"}));
    cmd->add_option("--compensate", options.compensate,
                    "exposure compensation: one gain per camera, one per camera and channel, or none")
        ->check(CLI::IsMember(compensationModeNames()))
        ->capture_default_str();
    cmd->footer("Example: zqavs stitch calib calib/camera0.png calib/camera1.png calib/camera2.png "
                "calib/camera3.png -o pano.png");
    cmd->callback([&options, &result] { result.code = runStitch(options); });
}

int runStitch(const StitchOptions& options)
{
    std::string error;
    zqavs_synth::Calibration calib;
    if (!loadCalibration(options.calibDir, options.alpha, &calib, &error)) {
        fprintf(stderr, "zqavs stitch: %s\n", error.c_str());
        return kExitFailure;
    }
    const int cameras = calib.layout.camera_num;
    if (static_cast<int>(options.images.size()) != cameras) {
        fprintf(stderr, "zqavs stitch: IMAGES: %zu images given, the calibration has %d cameras\n",
                options.images.size(), cameras);
        return kExitUsage;
    }
    int resizeWidth = 0, resizeHeight = 0;
    if (!options.resize.empty() && !parseSize(options.resize, &resizeWidth, &resizeHeight)) {
        fprintf(stderr, "zqavs stitch: --resize: expected WxH, got '%s'\n", options.resize.c_str());
        return kExitUsage;
    }
    zqavs_synth::BufferModeCalibration buffers;
    StitchSetup setup;
    setup.calibDir = options.calibDir;
    setup.rig = calib.rig;
    setup.useSync = options.sync;
    if (options.bufferMode) {
        if (!buffers.build(calib, options.sync, &error)) {
            fprintf(stderr, "zqavs stitch: %s\n", error.c_str());
            return kExitFailure;
        }
        setup.buffers = &buffers;
    }
    std::vector<zqavs_synth::Nv12Image> images(cameras);
    for (int c = 0; c < cameras; ++c)
        if (!loadCameraImage(options.images[c], calib.rig.src_width, calib.rig.src_height, &images[c], &error)) {
            fprintf(stderr, "zqavs stitch: %s\n", error.c_str());
            return kExitFailure;
        }
    StitchSession session;
    if (!session.init(setup, &error)) {
        fprintf(stderr, "zqavs stitch: %s\n", error.c_str());
        return kExitFailure;
    }
    for (int c = 0; c < cameras; ++c) session.setInput(c, images[c]);
    if (resizeWidth > 0 && !session.resize(resizeWidth, resizeHeight, &error)) {
        fprintf(stderr, "zqavs stitch: --resize: %s\n", error.c_str());
        return kExitFailure;
    }
    std::string compensate = options.compensate;
    int settleFrames = 0;
    if (!startCompensation(session, &compensate, &settleFrames, &error)) {
        fprintf(stderr, "zqavs stitch: %s\n", error.c_str());
        return kExitFailure;
    }
    std::vector<double> times;
    Progress progress("stitching frame");
    for (int f = 0; f < options.frames; ++f) {
        double ms = 0.0;
        if (!session.frame(&ms, &error)) {
            fprintf(stderr, "zqavs stitch: frame %d: %s\n", f, error.c_str());
            return kExitFailure;
        }
        times.push_back(ms);
        progress.update(f + 1, options.frames);
    }
    for (const std::string& path : options.outputs)
        if (!writeOutput(path, session.outputView(), &error)) {
            fprintf(stderr, "zqavs stitch: %s\n", error.c_str());
            return kExitFailure;
        }
    printf("%s\n", pathLine(ZQGFX_AVS_get_path()).c_str());
    printf("%d frame%s of %dx%d, median %.2f ms per frame\n", options.frames, options.frames == 1 ? "" : "s",
           session.outputWidth(), session.outputHeight(), medianOf(times));
    if (compensate == "off") {
        printf("compensation: off\n");
    } else {
        printf("compensation: %s, settled over %d frames before those\n", compensate.c_str(), settleFrames);
        printGains(session.compensationGains());
    }
    for (const std::string& path : options.outputs) printf("wrote %s\n", path.c_str());
    return kExitSuccess;
}

}  // namespace zqavs
