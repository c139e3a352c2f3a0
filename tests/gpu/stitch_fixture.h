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
    rig.cameras = 4, rig.src_width = 480, rig.src_height = 272, rig.bld_width = 1536, rig.bld_height = 272;
    rig.band_num = 3, rig.overlap_width = 96;
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

// The output image of one stitched frame, copied out of the caller's buffer.
struct Frame {
    int width = 0, height = 0, stride = 0;
    std::vector<uint8_t> bytes;
    zqavs_synth::Nv12View view() const { return {bytes.data(), width, height, stride}; }
    zqavs_synth::PlaneView luma() const { return zqavs_synth::lumaPlane(view()); }
    // The interleaved CbCr plane, one byte a column.
    zqavs_synth::PlaneView chroma() const { return {view().chroma(), width & ~1, height / 2, stride}; }
    uint8_t& at(int x, int row) { return bytes[static_cast<size_t>(row) * stride + x]; }
    const uint8_t& at(int x, int row) const { return bytes[static_cast<size_t>(row) * stride + x]; }
};

inline Frame copyFrame(const zqavs_synth::Nv12View& view)
{
    return {view.width, view.height, view.stride,
            std::vector<uint8_t>(view.data, view.data + static_cast<size_t>(view.stride) * view.height * 3 / 2)};
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
};

// A live session on a rig's calibration, written to a temporary directory (file mode) or handed
// over in memory (buffer mode), with the camera images loaded.
struct RigSession {
    TempDir dir;
    zqavs_synth::BufferModeCalibration buffers;
    zqavs::StitchSession session;

    // Returns an empty string on success, else what failed.
    std::string open(const Rig& rig, bool useSync = false, bool bufferMode = false)
    {
        std::string error;
        if (bufferMode ? !buffers.build(rig.calib, false, &error)
                       : !zqavs_synth::writeCalibration(rig.calib, dir.path, &error))
            return error;
        zqavs::StitchSetup setup{bufferMode ? "" : dir.path, bufferMode ? &buffers : nullptr, rig.calib.rig, useSync};
        if (!session.init(setup, &error)) return error;
        for (int c = 0; c < rig.config.cameras; ++c) session.setInput(c, rig.cameras[c]);
        return "";
    }
    // Stitches one frame and copies it out; an empty frame when stitching failed.
    Frame next()
    {
        double ms = 0;
        std::string error;
        if (session.frame(&ms, &error)) return copyFrame(session.outputView());
        ADD_FAILURE() << error;
        return {};
    }
};

// One frame of a rig through a session of its own.
inline Frame stitchOnce(const Rig& rig, bool useSync = false, bool bufferMode = false)
{
    RigSession live;
    const std::string error = live.open(rig, useSync, bufferMode);
    if (error.empty()) return live.next();
    ADD_FAILURE() << error;
    return {};
}

}  // namespace stitch_test

#endif  // ZQAVS_TESTS_STITCH_FIXTURE_H
