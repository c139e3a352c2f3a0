// Temporary calibration directories and layouts for the loader and entry-point tests.
#ifndef ZQAVS_TESTS_CALIBRATION_DIR_H
#define ZQAVS_TESTS_CALIBRATION_DIR_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "avs_calib_core.h"
#include "zqgfx_gpu_avs.h"

namespace entry_test {

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
    PSR_INITPARAMS_T l;
    l.camera_num = cameras;
    l.src_width = 320, l.src_height = 240, l.bld_width = cameras * 320, l.bld_height = 240;
    l.output_image_stride = l.bld_width, l.image_stride = 320, l.step_x = 16, l.step_y = 16;
    for (int c = 0; c < cameras; ++c) {
        zqPSR_NONOVERLAP_BLOCK n;
        n.nonoverlap_num = nonoverlap;
        for (int b = 0, w = nonoverlap ? 256 / nonoverlap : 0; b < nonoverlap; ++b) {
            n.dst_startx.push_back(c * 320 + 32 + b * w), n.dst_width.push_back(w);
            n.mesh_width.push_back(w / 16 + 1), n.mesh_height.push_back(16);
        }
        zqPSR_OVERLAP_BLOCK o;
        o.overlap_num = overlap;
        const int seams[2] = {c * 320, (c + 1) % cameras * 320};
        for (int b = 0; b < overlap; ++b) {
            o.band_num.push_back(2), o.dst_startx.push_back(seams[overlap == 1 ? 1 : b]), o.dst_width.push_back(32);
            o.mesh_width.push_back(3), o.mesh_height.push_back(16), o.alpha_width.push_back(32);
            o.alpha_height.push_back(240);
        }
        l.nonoverlap_block.push_back(n), l.overlap_block.push_back(o), l.image_block_num.push_back(nonoverlap + overlap);
    }
    return l;
}

// The parameter file of `layout`: the global section, then one section per camera.
inline std::string paramsText(PSR_INITPARAMS_T l)
{
    l.camera_num = static_cast<int>(l.image_block_num.size());
    return zqavs_calib_core::paramsFileText(l);
}

// Mesh node count of block `position` of camera `camera`.
inline int meshNodes(const PSR_INITPARAMS_T& l, int camera, int position)
{
    const zqPSR_NONOVERLAP_BLOCK& n = l.nonoverlap_block[camera];
    const zqPSR_OVERLAP_BLOCK& o = l.overlap_block[camera];
    const int k = position - n.nonoverlap_num;
    return k < 0 ? n.mesh_width[position] * n.mesh_height[position] : o.mesh_width[k] * o.mesh_height[k];
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
    void writeParams(const std::string& text) const { write("zq_ps_gpu_mesh_params.txt", text.data(), text.size()); }
    void writeMesh(char axis, int camera, int position, int count) const
    {
        const std::vector<float> v = meshValues(axis, camera, position, count);
        write(std::string("zq_ps_gpu_mesh") + axis + std::to_string(camera) + std::to_string(position) + ".bin",
              v.data(), v.size() * sizeof(float));
    }
    void remove(const std::string& name) const { std::filesystem::remove(dir_ + name); }

    // The parameter file and both mesh files of every block.
    void writeCalibration(const PSR_INITPARAMS_T& l) const
    {
        writeParams(paramsText(l));
        for (int c = 0; c < static_cast<int>(l.image_block_num.size()); ++c) {
            const int blocks = std::max(l.nonoverlap_block[c].nonoverlap_num, 0) + std::max(l.overlap_block[c].overlap_num, 0);
            for (int p = 0; p < blocks; ++p)
                for (char axis : {'x', 'y'}) writeMesh(axis, c, p, meshNodes(l, c, p));
        }
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

// Runs `body` with standard output captured (and standard error silenced); returns the output.
template <class F>
std::string stdoutOf(F&& body)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    body();
    testing::internal::GetCapturedStderr();
    return testing::internal::GetCapturedStdout();
}

inline bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

}  // namespace entry_test

#endif  // ZQAVS_TESTS_CALIBRATION_DIR_H
