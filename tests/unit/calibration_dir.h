// Temporary calibration directories and layouts for the loader and entry-point tests.
#ifndef ZQAVS_TESTS_CALIBRATION_DIR_H
#define ZQAVS_TESTS_CALIBRATION_DIR_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "avs_calib_core.h"
#include "unit/engine_log_support.h"
#include "zqgfx_gpu_avs.h"

namespace entry_test {

using engine_test::stdoutOf;

// The x or y mesh of block `position` of camera `camera`: values unique to that array.
inline std::vector<float> meshValues(char axis, int camera, int position, int count)
{
    std::vector<float> values(count > 0 ? count : 0);
    for (int i = 0; i < count; ++i) values[i] = (axis == 'x' ? 1000 : 2000) + camera * 100 + position * 10 + i * 0.5f;
    return values;
}

// `cameras` cameras of 320 x 240 side by side, each with `nonoverlap` non-overlap blocks and up to
// two 32-column overlap blocks: its left seam, then its right seam (the next camera's left seam).
inline PSR_INITPARAMS_T ringLayout(int cameras, int nonoverlap, int overlap)
{
    namespace core = zqavs_calib_core;
    PSR_INITPARAMS_T l = core::emptyLayout({cameras, 320, 240, cameras * 320, 240});
    const core::MeshGrid grid{16, 16, 240};
    for (int c = 0; c < cameras; ++c) {
        for (int b = 0, w = nonoverlap ? 256 / nonoverlap : 0; b < nonoverlap; ++b)
            core::appendNonoverlapBlock(&l.nonoverlap_block[c], c * 320 + 32 + b * w, w, grid);
        const int seams[2] = {c * 320, (c + 1) % cameras * 320};
        for (int b = 0; b < overlap; ++b)
            core::appendOverlapBlock(&l.overlap_block[c], seams[overlap == 1 ? 1 : b], 32, 2, grid);
        l.image_block_num[c] = nonoverlap + overlap;
    }
    return l;
}

// Mesh node count of block `position` of camera `camera`.
inline int meshNodes(const PSR_INITPARAMS_T& l, int camera, int position)
{
    const zqavs_calib_core::BlockView block = zqavs_calib_core::cameraBlocks(l, camera).at(position);
    return block.mesh_width * block.mesh_height;
}

// Buffer-mode records for every block of `l` in mesh order, each with its own x and y mesh.
struct CallerMeshes {
    explicit CallerMeshes(const PSR_INITPARAMS_T& l)
    {
        for (int c = 0; c < l.camera_num; ++c)
            for (int p = 0; p < l.image_block_num[c]; ++p)
                for (char axis : {'x', 'y'}) meshes.push_back(meshValues(axis, c, p, meshNodes(l, c, p)));
        for (size_t m = 0; m < meshes.size() / 2; ++m)
            records.push_back({int(m), 16, 16, 0, 0, meshes[2 * m].data(), -1, meshes[2 * m + 1].data(), -1});
        for (PSR_REMAP_MESH& r : records) pointers.push_back(&r);
    }
    std::vector<std::vector<float>> meshes;
    std::vector<PSR_REMAP_MESH> records;
    std::vector<void*> pointers;
};

class TempCalibrationDir {
public:
    TempCalibrationDir()
    {
        char pattern[] = "/tmp/zqavs_calib_XXXXXX";
        dir_ = std::string(mkdtemp(pattern)) + "/";
    }
    ~TempCalibrationDir() { std::filesystem::remove_all(dir_); }
    const std::string& path() const { return dir_; }

    void write(const std::string& name, const void* bytes, size_t size) const
    {
        std::ofstream(dir_ + name, std::ios::binary).write(static_cast<const char*>(bytes), size);
    }
    void writeMesh(char axis, int camera, int position, int count) const
    {
        const std::vector<float> v = meshValues(axis, camera, position, count);
        write(zqavs_calib_core::meshFileName(axis, camera, position), v.data(), v.size() * sizeof(float));
    }
    void remove(const std::string& name) const { std::filesystem::remove(dir_ + name); }

    // The parameter file and both mesh files of every block.
    void writeCalibration(const PSR_INITPARAMS_T& l) const
    {
        const std::string params = zqavs_calib_core::paramsFileText(l);
        write(zqavs_calib_core::kParamsFileName, params.data(), params.size());
        for (int c = 0; c < l.camera_num; ++c)
            for (const zqavs_calib_core::BlockView& b : zqavs_calib_core::cameraBlocks(l, c))
                for (char axis : {'x', 'y'}) writeMesh(axis, c, b.position, b.mesh_width * b.mesh_height);
    }

private:
    std::string dir_;
};

// A file-mode context on `dir` (kept alive by the caller) whose buffers fit `layout`.
inline ZQGFX_AVS_CONTEXT_T contextFor(const PSR_INITPARAMS_T& l, const std::string& dir)
{
    ZQGFX_AVS_CONTEXT_T context{};
    context.numView = l.camera_num;
    context.meshFilePath = const_cast<char*>(dir.c_str());
    context.inputBufferWidth = (l.src_width + 15) & ~15, context.inputBufferHeight = l.src_height;
    context.outputBufferWidth = (l.bld_width + 15) & ~15, context.outputBufferHeight = l.bld_height;
    context.avsAlphaType = FUSE_GPU_ALPHA_FLOAT;
    return context;
}

inline bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

}  // namespace entry_test

#endif  // ZQAVS_TESTS_CALIBRATION_DIR_H
