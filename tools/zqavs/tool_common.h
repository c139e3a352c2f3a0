// Shared pieces of the zqavs subcommands: options, exit codes, image files.
#ifndef ZQAVS_TOOL_COMMON_H
#define ZQAVS_TOOL_COMMON_H

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

#include "rig_options.h"
#include "zqavs_synth.h"

namespace zqavs {

constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

struct ToolResult {
    int code = kExitSuccess;
};

struct CheckOptions {
    std::string dir;
    int cameras = 0;
    std::string overlay;
};

// zqavs synth DIR [rig options] | zqavs synth --rig RIG.json --scene PHOTO -o DIR
struct SynthOptions {
    std::string dir;
    RigOptions rig;
    std::string rigFile;
};

struct StitchOptions {
    std::string calibDir;
    std::vector<std::string> images;
    std::vector<std::string> outputs;
    int frames = 1;
    bool sync = false;
    std::string resize;
    bool bufferMode = false;
    std::string alpha = "auto";
    std::string compensate = "channels";
};

struct DemoOptions {
    std::string out = "out/demo";
    int frames = 10;
};

// zqavs calib RIG.json [--refine IMG...] [--seams [IMG...]] -o DIR [--overlay PNG]
struct CalibOptions {
    std::string rig;
    std::vector<std::string> refineImages;
    bool seams = false;                    // --seams was given, with or without images
    std::vector<std::string> seamImages;   // empty: those of --refine
    std::string seamFinder = "gc";
    int seamWidth = 0;                     // 0: the rig file's seam_width
    std::string out;
    std::string overlay;
};

// zqavs calib intrinsics IMAGES... --board COLSxROWS --square METRES [--fisheye] -o CAMERA.yml
struct IntrinsicsOptions {
    std::vector<std::string> images;
    std::string board;
    double square = 0.0;
    bool fisheye = false;
    std::string out;
};

// zqavs soak: one instance for many frames, reshaped now and then, its memory watched.
struct SoakOptions {
    int frames = 2000;
    int cameras = 4;
    std::string size = "480x272";
    int descriptors = 128;
    int reshapeEvery = 1000;
    int checkEvery = 100;
    int reportEvery = 1000;
    int instances = 1;
    int warmup = 2000;
    int maxGrowthMib = -1;
};

struct BenchOptions {
    int frames = 30;
    std::vector<int> cameras{2, 4, 6, 8};
    std::vector<std::string> sizes{"1280x720", "1920x1080"};
    std::string json;
    bool opencv = false;
    int step = 16;  // mesh node spacing of the bench rigs, in panorama pixels
    std::string compensate = "off";
};

void addCheckCommand(CLI::App& app, CheckOptions& options, ToolResult& result);
void addSynthCommand(CLI::App& app, SynthOptions& options, ToolResult& result);
void addStitchCommand(CLI::App& app, StitchOptions& options, ToolResult& result);
void addDemoCommand(CLI::App& app, DemoOptions& options, ToolResult& result);
void addBenchCommand(CLI::App& app, BenchOptions& options, ToolResult& result);
void addSoakCommand(CLI::App& app, SoakOptions& options, ToolResult& result);
void addCalibCommand(CLI::App& app, CalibOptions& options, IntrinsicsOptions& intrinsics, ToolResult& result);
int runCheck(const CheckOptions& options);
int runSynth(SynthOptions& options);
int runSynthRig(const SynthOptions& options);
int runStitch(const StitchOptions& options);
int runDemo(const DemoOptions& options);
int runBench(const BenchOptions& options);
int runSoak(const SoakOptions& options);
int runCalib(const CalibOptions& options);
int runCalibIntrinsics(const IntrinsicsOptions& options);

// Parameter file, meshes, alpha maps and camera images of a generated calibration into `dir`.
bool writeSynthDirectory(const zqavs_synth::Calibration& calib, const std::string& dir, std::string* error);
bool writeNv12AsPng(const std::string& path, const zqavs_synth::Nv12View& image);

bool endsWith(const std::string& text, const std::string& suffix);
// "path: NAME (what it means)", the line the stitching subcommands print.
std::string pathLine(const char* path);
// "camera N gains: R r  G g  B b" lines, from the 3 gains per camera of a stitch.
void printGains(const std::vector<float>& gains);
// One camera image of the given size as NV12 with the library's stride: PNG/JPEG, or raw NV12
// (.nv12/.yuv, at that stride or tightly packed). False with *error naming the file.
bool loadCameraImage(const std::string& path, int width, int height, zqavs_synth::Nv12Image* out, std::string* error);

// 8-bit RGB images. PNG or JPEG in; PNG out.
bool readImage(const std::string& path, std::vector<unsigned char>& rgb, int* width, int* height);
bool writePng(const std::string& path, const unsigned char* rgb, int width, int height);

// A single updating line on a terminal; silent when standard output is not one.
class Progress {
public:
    explicit Progress(const char* what);
    void update(int done, int total);
    void clear();  // before a line of its own
    ~Progress();

private:
    const char* what_;
    bool tty_;
    bool shown_ = false;
};

}  // namespace zqavs

#endif  // ZQAVS_TOOL_COMMON_H
