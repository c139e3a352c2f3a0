// Shared pieces of the whole-pipeline tests on the machine's real EGL/GLES driver: a synthetic
// rig, its calibration on disk or in memory, and stitched frames to compare.
#ifndef ZQAVS_TESTS_STITCH_FIXTURE_H
#define ZQAVS_TESTS_STITCH_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "stitch_session.h"
#include "zqavs_synth.h"

namespace stitch_test {

// A small 4-camera rig that stitches in a fraction of a second on a software rasterizer.
inline zqavs_synth::RigConfig smallRig()
{
    zqavs_synth::RigConfig rig;
    rig.cameras = 4;
    rig.src_width = 480;
    rig.src_height = 272;
    rig.bld_width = 1536;
    rig.bld_height = 272;
    rig.step_x = 16;
    rig.step_y = 16;
    rig.band_num = 3;
    rig.overlap_width = 96;
    return rig;
}

struct TempDir {
    std::string path;
    TempDir()
    {
        char name[] = "/tmp/zqavs-test-XXXXXX";
        if (mkdtemp(name)) path = name;
    }
    ~TempDir()
    {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove_all(path, ignored);
    }
};

// Where actual and expected images of a failing comparison are written.
inline std::string failureImagePath(const std::string& name)
{
    return (std::filesystem::temp_directory_path() / ("zqavs_" + name)).string();
}

// The output plane of one stitched frame, copied out of the caller's buffer.
struct Frame {
    int width = 0, height = 0, stride = 0;
    std::vector<uint8_t> bytes;
    zqavs_synth::Nv12View view() const { return {bytes.data(), width, height, stride}; }
    zqavs_synth::PlaneView luma() const { return zqavs_synth::lumaPlane(view()); }
};

inline Frame copyFrame(const zqavs_synth::Nv12View& view)
{
    Frame frame;
    frame.width = view.width;
    frame.height = view.height;
    frame.stride = view.stride;
    frame.bytes.assign(view.data, view.data + static_cast<size_t>(view.stride) * view.height * 3 / 2);
    return frame;
}

inline void writeFramePgm(const Frame& frame, const std::string& path)
{
    FILE* file = fopen(path.c_str(), "wb");
    if (!file) return;
    fprintf(file, "P5\n%d %d\n255\n", frame.stride, frame.height * 3 / 2);
    fwrite(frame.bytes.data(), 1, frame.bytes.size(), file);
    fclose(file);
}

// A generated calibration and the camera images rendered from its scene.
struct Rig {
    zqavs_synth::RigConfig config;
    zqavs_synth::Calibration calib;
    zqavs_synth::RgbImage scene;
    std::vector<zqavs_synth::Nv12Image> cameras;

    explicit Rig(const zqavs_synth::RigConfig& rig) : config(rig)
    {
        std::string error;
        if (!zqavs_synth::generateCalibration(rig, &calib, &error)) ADD_FAILURE() << error;
        scene = zqavs_synth::makeScene(rig);
        for (int c = 0; c < rig.cameras; ++c) cameras.push_back(zqavs_synth::renderCamera(calib, c, scene));
    }

    zqavs::StitchSetup setup(bool useSync = false) const
    {
        zqavs::StitchSetup s;
        s.rig = calib.rig;
        s.useSync = useSync;
        return s;
    }
};

// Stitches `frames` frames of a rig through the public interface in file mode (calibration
// written into `dir`) or, with `buffers`, in buffer mode. Returns the last frame.
inline Frame stitch(const Rig& rig, const std::string& dir, zqavs_synth::BufferModeCalibration* buffers = nullptr,
                    bool useSync = false, int frames = 1)
{
    zqavs::StitchSetup setup = rig.setup(useSync);
    setup.calibDir = dir;
    setup.buffers = buffers;
    zqavs::StitchSession session;
    std::string error;
    if (!session.init(setup, &error)) {
        ADD_FAILURE() << error;
        return {};
    }
    for (int c = 0; c < rig.config.cameras; ++c) session.setInput(c, rig.cameras[c]);
    for (int f = 0; f < frames; ++f) {
        double ms = 0;
        if (!session.frame(&ms, &error)) {
            ADD_FAILURE() << error;
            return {};
        }
    }
    return copyFrame(session.outputView());
}

// A live session on a rig's calibration, written to a temporary directory, with the camera
// images loaded.
struct RigSession {
    TempDir dir;
    zqavs::StitchSession session;

    // Returns an empty string on success, else what failed.
    std::string open(const Rig& rig, bool useSync = false)
    {
        std::string error;
        if (!zqavs_synth::writeCalibration(rig.calib, dir.path, &error)) return error;
        zqavs::StitchSetup setup = rig.setup(useSync);
        setup.calibDir = dir.path;
        if (!session.init(setup, &error)) return error;
        for (int c = 0; c < rig.config.cameras; ++c) session.setInput(c, rig.cameras[c]);
        return "";
    }
    // Stitches one frame and copies it out; an empty frame when stitching failed.
    Frame next()
    {
        double ms = 0;
        std::string error;
        if (!session.frame(&ms, &error)) {
            ADD_FAILURE() << error;
            return {};
        }
        return copyFrame(session.outputView());
    }
};

inline Frame stitchFromFiles(const Rig& rig, bool useSync = false)
{
    TempDir dir;
    std::string error;
    if (!zqavs_synth::writeCalibration(rig.calib, dir.path, &error)) ADD_FAILURE() << error;
    return stitch(rig, dir.path, nullptr, useSync);
}

}  // namespace stitch_test

#endif  // ZQAVS_TESTS_STITCH_FIXTURE_H
