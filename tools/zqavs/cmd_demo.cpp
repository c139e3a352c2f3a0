// zqavs demo: generate a 4-camera rig, stitch it, and show the result against the scene.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "stitch_session.h"
#include "tool_common.h"

namespace zqavs {
namespace {

// The camera images in a row, scaled to the panorama's width, above the panorama.
zqavs_synth::RgbImage sideBySide(const std::vector<zqavs_synth::Nv12Image>& cameras, const zqavs_synth::RgbImage& pano)
{
    const int n = static_cast<int>(cameras.size());
    const int thumbWidth = pano.width / n;
    const int thumbHeight = cameras[0].height * thumbWidth / cameras[0].width;
    zqavs_synth::RgbImage out;
    out.width = pano.width;
    out.height = thumbHeight + 8 + pano.height;
    out.rgb.assign(static_cast<size_t>(out.width) * out.height * 3, 255);
    for (int c = 0; c < n; ++c) {
        const zqavs_synth::RgbImage thumb =
            zqavs_synth::resizeRgb(zqavs_synth::nv12ToRgb(cameras[c].view()), thumbWidth, thumbHeight);
        for (int y = 0; y < thumbHeight; ++y)
            memcpy(&out.rgb[(static_cast<size_t>(y) * out.width + c * thumbWidth) * 3],
                   &thumb.rgb[static_cast<size_t>(y) * thumbWidth * 3], static_cast<size_t>(thumbWidth) * 3);
    }
    memcpy(&out.rgb[static_cast<size_t>(thumbHeight + 8) * out.width * 3], pano.rgb.data(), pano.rgb.size());
    return out;
}

struct TempDir {
    std::string path;
    TempDir()
    {
        char name[] = "/tmp/zqavs-demo-XXXXXX";
        if (mkdtemp(name)) path = name;
    }
    ~TempDir()
    {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove_all(path, ignored);
    }
};

// The one gain g minimising the squared difference of g * actual and expected over the masked
// columns.
double fittedGain(const zqavs_synth::PlaneView& actual, const zqavs_synth::PlaneView& expected,
                  const std::vector<uint8_t>& columnMask)
{
    double cross = 0.0, square = 0.0;
    for (int y = 0; y < actual.height; ++y)
        for (int x = 0; x < actual.width; ++x) {
            if (!columnMask.empty() && !columnMask[x]) continue;
            cross += static_cast<double>(actual.at(x, y)) * expected.at(x, y);
            square += static_cast<double>(actual.at(x, y)) * actual.at(x, y);
        }
    return square > 0.0 ? cross / square : 1.0;
}

// PSNR of `actual` scaled by `gain` (rounded and clamped as a pixel would be) against `expected`.
double psnrWithGain(const zqavs_synth::PlaneView& actual, double gain, const zqavs_synth::PlaneView& expected,
                    const std::vector<uint8_t>& columnMask)
{
    std::vector<uint8_t> scaled(static_cast<size_t>(actual.width) * actual.height);
    for (int y = 0; y < actual.height; ++y)
        for (int x = 0; x < actual.width; ++x)
            scaled[static_cast<size_t>(y) * actual.width + x] =
                static_cast<uint8_t>(std::clamp(std::lround(actual.at(x, y) * gain), 0L, 255L));
    const zqavs_synth::PlaneView view{scaled.data(), actual.width, actual.height, actual.width};
    return zqavs_synth::psnr(view, expected, columnMask);
}

}  // namespace

void addDemoCommand(CLI::App& app, DemoOptions& options, ToolResult& result)
{
    CLI::App* cmd = app.add_subcommand("demo", "Generate a 4-camera rig, stitch it and compare with the scene");
    cmd->add_option("--out", options.out, "where the pictures go")->capture_default_str();
    cmd->add_option("--frames", options.frames, "frames to time, before compensation is turned on")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    cmd->footer("Writes panorama.png, panorama.nv12 (both with compensation) and side_by_side.png into the --out "
                "directory.");
    cmd->callback([&options, &result] { result.code = runDemo(options); });
}

int runDemo(const DemoOptions& options)
{
    std::string error;
    TempDir temp;
    if (temp.path.empty()) {
        fprintf(stderr, "zqavs demo: cannot create a temporary directory\n");
        return kExitFailure;
    }
    zqavs_synth::RigConfig rig;  // 4 cameras 1280x720 -> 4096x720
    rig.gains = {1.0, 1.1, 0.9, 1.05};
    zqavs_synth::Calibration calib;
    if (!zqavs_synth::generateCalibration(rig, &calib, &error) || !writeSynthDirectory(calib, temp.path, &error)) {
        fprintf(stderr, "zqavs demo: %s\n", error.c_str());
        return kExitFailure;
    }
    const zqavs_synth::RgbImage scene = zqavs_synth::makeScene(rig);
    std::vector<zqavs_synth::Nv12Image> cameras;
    for (int c = 0; c < rig.cameras; ++c) cameras.push_back(zqavs_synth::renderCamera(calib, c, scene));

    StitchSetup setup;
    setup.calibDir = temp.path;
    setup.rig = rig;
    StitchSession session;
    if (!session.init(setup, &error)) {
        fprintf(stderr, "zqavs demo: %s\n", error.c_str());
        return kExitFailure;
    }
    for (int c = 0; c < rig.cameras; ++c) session.setInput(c, cameras[c]);
    const zqavs_synth::Nv12Image expected = zqavs_synth::rgbToNv12(scene);
    const zqavs_synth::PlaneView sceneLuma = zqavs_synth::lumaPlane(expected.view());
    const std::vector<uint8_t> covered = zqavs_synth::coveredColumns(calib.layout);
    std::vector<double> times;
    Progress progress("stitching frame");
    for (int f = 0; f < options.frames; ++f) {
        double ms = 0.0;
        if (!session.frame(&ms, &error)) {
            fprintf(stderr, "zqavs demo: %s\n", error.c_str());
            return kExitFailure;
        }
        if (f > 0 || options.frames == 1) times.push_back(ms);  // the first frame compiles shaders
        progress.update(f + 1, options.frames);
    }
    progress.clear();
    const double psnrOff = zqavs_synth::psnr(zqavs_synth::lumaPlane(session.outputView()), sceneLuma, covered);

    // The same frames with compensation, smoothed as for video, until it settles.
    constexpr int kMaxSettleFrames = 200;
    const bool compensated = session.setCompensation(compensationModeOf("channels"), kVideoSmoothing, &error);
    if (!compensated) fprintf(stderr, "zqavs demo: %s\n", error.c_str());
    bool settled = false;
    const int settleFrames = compensated ? session.settleCompensation(kMaxSettleFrames, &settled, &error) : 0;
    if (settleFrames < 0) {
        fprintf(stderr, "zqavs demo: %s\n", error.c_str());
        return kExitFailure;
    }

    std::error_code ec;
    std::filesystem::create_directories(options.out, ec);
    const zqavs_synth::Nv12View output = session.outputView();
    const zqavs_synth::RgbImage pano = zqavs_synth::nv12ToRgb(output);
    const std::string panoPng = options.out + "/panorama.png", panoNv12 = options.out + "/panorama.nv12",
                      sidePng = options.out + "/side_by_side.png";
    const zqavs_synth::RgbImage side = sideBySide(cameras, pano);
    std::ofstream raw(panoNv12, std::ios::binary);
    raw.write(reinterpret_cast<const char*>(output.data),
              static_cast<std::streamsize>(zqavs_synth::nv12Bytes(output.width, output.height)));
    if (!writePng(panoPng, pano.rgb.data(), pano.width, pano.height) || !raw.good() ||
        !writePng(sidePng, side.rgb.data(), side.width, side.height)) {
        fprintf(stderr, "zqavs demo: cannot write into %s\n", options.out.c_str());
        return kExitFailure;
    }
    const zqavs_synth::PlaneView luma = zqavs_synth::lumaPlane(output);
    const double level = fittedGain(luma, sceneLuma, covered);
    printf("%s\n", pathLine(ZQGFX_AVS_get_path()).c_str());
    printf("cameras: %d x %dx%d -> panorama %dx%d, %zu blended seams\n", rig.cameras, rig.src_width, rig.src_height,
           rig.bld_width, rig.bld_height, calib.seams.size());
    printf("frame time: %.2f ms (median of %zu frames after the first)\n", medianOf(times), times.size());
    printf("PSNR of Y against the scene, compensation off: %.2f dB (the cameras' exposures differ by up to 10%%)\n",
           psnrOff);
    if (compensated) {
        printf("PSNR of Y against the scene, compensation channels: %.2f dB after %d frames%s (the panorama's luma "
               "scaled by %.3f to fit the scene: compensation makes the cameras agree, their common level is free)\n",
               psnrWithGain(luma, level, sceneLuma, covered), settleFrames, settled ? "" : ", not settled", level);
        printGains(session.compensationGains());
    }
    printf("wrote %s, %s, %s\n", panoPng.c_str(), panoNv12.c_str(), sidePng.c_str());
    return kExitSuccess;
}

}  // namespace zqavs
