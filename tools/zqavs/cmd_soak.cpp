// zqavs soak: a long run of one instance, watching for growth of memory and descriptors.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#include "stitch_session.h"
#include "tool_common.h"

namespace zqavs {
namespace {

// What the process holds at one point of the run.
struct Usage {
    int frame = 0;
    long rssKib = 0;
    int fds = 0;
};

long residentKib()
{
    long pages = 0, resident = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    if (statm == nullptr) return 0;
    if (fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    fclose(statm);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

int openDescriptors()
{
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return 0;
    int count = 0;
    while (const dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.') ++count;
    closedir(dir);
    return count - 1;  // the directory's own descriptor
}

Usage usageAt(int frame)
{
    return {frame, residentKib(), openDescriptors()};
}

// The panorama's rows without their stride padding, which keeps whatever the buffer held.
std::vector<uint8_t> visibleBytes(const zqavs_synth::Nv12View& view)
{
    std::vector<uint8_t> bytes;
    bytes.reserve(static_cast<size_t>(view.width) * view.height * 3 / 2);
    for (int row = 0; row < view.height * 3 / 2; ++row) {
        const uint8_t* start = view.data + static_cast<size_t>(row) * view.stride;
        bytes.insert(bytes.end(), start, start + view.width);
    }
    return bytes;
}

// Camera buffer sets that together hold at least `descriptors` distinct descriptors, each set
// showing the cameras' images: every frame may take any set and give the same panorama.
class InputPool {
public:
    bool build(const zqavs_synth::Calibration& calib, int descriptors, std::string* error)
    {
        const zqavs_synth::RigConfig& rig = calib.rig;
        const zqavs_synth::RgbImage scene = zqavs_synth::makeScene(rig);
        std::vector<zqavs_synth::Nv12Image> images;
        for (int c = 0; c < rig.cameras; ++c) images.push_back(zqavs_synth::renderCamera(calib, c, scene));
        const int sets = (descriptors + rig.cameras - 1) / rig.cameras;
        buffers_.resize(static_cast<size_t>(sets) * rig.cameras);
        for (size_t i = 0; i < buffers_.size(); ++i) {
            const zqavs_synth::Nv12Image& image = images[i % rig.cameras];
            if (!buffers_[i].allocate(rig.src_width, rig.src_height, error)) return false;
            memcpy(buffers_[i].data(), image.data.data(), std::min(image.data.size(), buffers_[i].size()));
        }
        cameras_ = rig.cameras;
        return true;
    }
    int sets() const { return cameras_ ? static_cast<int>(buffers_.size()) / cameras_ : 0; }
    // The descriptors of set `set` followed by the output's, as the context wants them.
    void fill(int set, int outputFd, std::vector<int>* fds) const
    {
        fds->clear();
        for (int c = 0; c < cameras_; ++c) fds->push_back(buffers_[static_cast<size_t>(set) * cameras_ + c].fd());
        fds->push_back(outputFd);
    }

private:
    std::vector<FrameBuffer> buffers_;
    int cameras_ = 0;
};

struct SoakRun {
    const SoakOptions& options;
    zqavs_synth::Calibration calib;
    zqavs_synth::BufferModeCalibration buffers;
    StitchSetup setup;
    std::unique_ptr<StitchSession> session;
    InputPool pool;
    std::vector<int> fds;
    std::map<int, std::vector<uint8_t>> firstFrameOfWidth;  // what every later check compares to
    std::vector<double> frameMs;                            // since the last report
    std::vector<Usage> reports;
    int mismatches = 0;

    explicit SoakRun(const SoakOptions& o) : options(o) {}

    bool open(int width, int height, std::string* error)
    {
        zqavs_synth::RigConfig rig;
        rig.cameras = options.cameras;
        rig.src_width = width;
        rig.src_height = height;
        rig.step_x = rig.step_y = 16;
        rig.bld_width = (rig.cameras * rig.src_width * 3 / 4) / 16 * 16;
        rig.bld_height = rig.src_height / 16 * 16;
        rig.overlap_width = 96;
        setup.buffers = &buffers;
        setup.rig = rig;
        return zqavs_synth::generateCalibration(rig, &calib, error) && buffers.build(calib, false, error) &&
               pool.build(calib, options.descriptors, error);
    }

    // The previous instance, if any, is torn down first; a later one takes up the current shape.
    bool startInstance(int frame, std::string* error)
    {
        session.reset();
        session = std::make_unique<StitchSession>();
        return session->init(setup, error) && (frame == 0 || reshape(frame, error));
    }

    // Every 1,000 frames the panorama switches between its full and half width, and one block's
    // mesh is replaced by the same values: both rebuild GL objects without changing the picture.
    bool reshape(int frame, std::string* error)
    {
        const int cycle = frame / options.reshapeEvery;
        const int width = cycle % 2 ? calib.rig.bld_width / 2 : calib.rig.bld_width;
        if (!session->resize(width, calib.rig.bld_height, error)) return false;
        PSR_REMAP_MESH& mesh = buffers.meshes[static_cast<size_t>(cycle) % buffers.meshes.size()];
        if (ZQGFX_AVS_update_mesh(&session->context(), &mesh) != ZQGFX_AVS_SUCCESS) {
            *error = "ZQGFX_AVS_update_mesh failed for block " + std::to_string(mesh.meshIndex);
            return false;
        }
        return true;
    }

    bool stitch(int frame, std::string* error)
    {
        pool.fill(frame % pool.sets(), session->output().fd(), &fds);
        session->context().inputFdArray = fds.data();
        double ms = 0;
        if (!session->frame(&ms, error)) return false;
        frameMs.push_back(ms);
        return true;
    }

    void check(int frame)
    {
        const zqavs_synth::Nv12View view = session->outputView();
        std::vector<uint8_t> pixels = visibleBytes(view);
        auto first = firstFrameOfWidth.find(view.width);
        if (first == firstFrameOfWidth.end()) {
            firstFrameOfWidth.emplace(view.width, std::move(pixels));
        } else if (pixels != first->second) {
            ++mismatches;
            printf("frame %d: the %dx%d panorama differs from its first one\n", frame, view.width, view.height);
        }
    }

    void report(int frame)
    {
        const Usage usage = usageAt(frame);
        reports.push_back(usage);
        printf("frame %7d  resident %7.1f MiB  descriptors %4d  frame %7.2f ms (median)\n", frame,
               usage.rssKib / 1024.0, usage.fds, medianOf(frameMs));
        fflush(stdout);
        frameMs.clear();
    }

    bool run(std::string* error)
    {
        Progress progress("soak: frame");
        const int framesPerInstance = (options.frames + options.instances - 1) / options.instances;
        for (int frame = 0; frame < options.frames; ++frame) {
            if (frame % framesPerInstance == 0) {
                if (!startInstance(frame, error)) return false;
            } else if (frame % options.reshapeEvery == 0 && !reshape(frame, error)) {
                return false;
            }
            if (!stitch(frame, error)) return false;
            if (frame % options.checkEvery == 0) check(frame);
            if (frame == 0 || (frame + 1) % options.reportEvery == 0) {
                progress.clear();
                report(frame + 1);
            } else if (frame % 10 == 0) {
                progress.update(frame + 1, options.frames);
            }
        }
        session.reset();
        return true;
    }
};

// Start (after the first frame), warm (after the warm-up) and end, and whether descriptors or
// memory grew past the warm-up.
bool summarise(const SoakRun& run)
{
    const std::vector<Usage>& r = run.reports;
    const Usage start = r.front(), end = r.back();
    Usage warm = end;
    for (const Usage& usage : r)
        if (usage.frame >= run.options.warmup) {
            warm = usage;
            break;
        }
    printf("resident memory: start %.1f MiB (frame %d), warm %.1f MiB (frame %d), end %.1f MiB (frame %d)\n",
           start.rssKib / 1024.0, start.frame, warm.rssKib / 1024.0, warm.frame, end.rssKib / 1024.0, end.frame);
    printf("descriptors: start %d, warm %d, end %d\n", start.fds, warm.fds, end.fds);
    printf("%d frames checked in %zu widths, %d differed\n", (run.options.frames + run.options.checkEvery - 1) /
                                                                  run.options.checkEvery,
           run.firstFrameOfWidth.size(), run.mismatches);
    bool ok = run.mismatches == 0;
    if (end.fds > warm.fds) {
        printf("descriptors grew by %d after the warm-up\n", end.fds - warm.fds);
        ok = false;
    }
    const long growthKib = end.rssKib - warm.rssKib;
    if (run.options.maxGrowthMib >= 0 && growthKib > run.options.maxGrowthMib * 1024L) {
        printf("resident memory grew by %.1f MiB after the warm-up (allowed %d)\n", growthKib / 1024.0,
               run.options.maxGrowthMib);
        ok = false;
    }
    return ok;
}

}  // namespace

void addSoakCommand(CLI::App& app, SoakOptions& options, ToolResult& result)
{
    CLI::App* cmd = app.add_subcommand("soak", "Stitch for a long time and watch memory and descriptors");
    cmd->add_option("--frames", options.frames, "frames to stitch")->check(CLI::PositiveNumber)->capture_default_str();
    cmd->add_option("--cameras", options.cameras, "cameras of the synthetic rig")
        ->check(CLI::Range(2, 10))
        ->capture_default_str();
    cmd->add_option("--size", options.size, "camera image size WxH")->capture_default_str();
    cmd->add_option("--descriptors", options.descriptors, "distinct input descriptors the frames rotate through")
        ->check(CLI::Range(1, 4096))
        ->capture_default_str();
    cmd->add_option("--reshape-every", options.reshapeEvery, "frames between a resize and a mesh replacement")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    cmd->add_option("--check-every", options.checkEvery, "frames between two byte checks of the panorama")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    cmd->add_option("--report-every", options.reportEvery, "frames between two report lines")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    cmd->add_option("--instances", options.instances, "instances the frames are shared among, one after the other")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    cmd->add_option("--warmup", options.warmup, "frames after which memory and descriptors must stay flat")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    cmd->add_option("--max-growth", options.maxGrowthMib, "MiB resident memory may grow after the warm-up; -1: any")
        ->capture_default_str();
    cmd->footer("Fails when a checked panorama differs from the first one of its width, when descriptors grow "
                "after the warm-up,\nor when memory grows past --max-growth.\n"
                "Example: zqavs soak --frames 20000");
    cmd->callback([&options, &result] { result.code = runSoak(options); });
}

int runSoak(const SoakOptions& options)
{
    int width = 0, height = 0;
    if (!parseSize(options.size, &width, &height)) {
        fprintf(stderr, "zqavs soak: --size: expected WxH, got '%s'\n", options.size.c_str());
        return kExitUsage;
    }
    SoakRun run(options);
    std::string error;
    if (!run.open(width, height, &error) || !run.run(&error)) {
        fprintf(stderr, "zqavs soak: %s\n", error.c_str());
        return kExitFailure;
    }
    return summarise(run) ? kExitSuccess : kExitFailure;
}

}  // namespace zqavs
