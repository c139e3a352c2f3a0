#include "calib_loader.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

namespace zqavs {
namespace {

bool readFile(const std::string& path, std::vector<uint8_t>* bytes)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

bool readFloats(const std::string& path, size_t count, std::vector<float>* values)
{
    std::vector<uint8_t> bytes;
    if (!readFile(path, &bytes) || bytes.size() != count * sizeof(float)) return false;
    values->resize(count);
    memcpy(values->data(), bytes.data(), bytes.size());
    return true;
}

std::string withSlash(const std::string& dir)
{
    return (!dir.empty() && dir.back() == '/') ? dir : dir + "/";
}

// The layout a context would get from the parameter file in file mode.
PSR_INITPARAMS_T completeFileLayout(const PSR_INITPARAMS_T& read)
{
    PSR_INITPARAMS_T layout = read;
    layout.image_stride = read.src_width;
    layout.output_image_stride = static_cast<uint32_t>((read.bld_width + 15) & ~15);
    layout.image_formate = PSR_TYPE_YUV420SP;
    layout.gain_step_x = 32;
    layout.gain_step_y = 64;
    return layout;
}

}  // namespace

bool loadCalibration(const std::string& dir, const std::string& alpha, zqavs_synth::Calibration* out,
                     std::string* error)
{
    const CheckReport report = checkCalibration(dir);
    if (report.count(Finding::Error) > 0) {
        *error = "the calibration has errors (run zqavs check " + dir + "):";
        for (const Finding& f : report.findings)
            if (f.severity == Finding::Error) *error += "\n  " + f.file + ": " + f.message;
        return false;
    }
    const std::string base = withSlash(dir);
    out->layout = completeFileLayout(report.layout);
    out->rig.cameras = out->layout.camera_num;
    out->rig.src_width = out->layout.src_width;
    out->rig.src_height = out->layout.src_height;
    out->rig.bld_width = out->layout.bld_width;
    out->rig.bld_height = out->layout.bld_height;
    out->rig.step_x = out->layout.step_x;
    out->rig.step_y = out->layout.step_y;
    out->meshes.assign(out->layout.camera_num, {});
    for (int c = 0; c < out->layout.camera_num; ++c) {
        for (const zqavs_calib_core::BlockView& block : zqavs_calib_core::cameraBlocks(out->layout, c)) {
            zqavs_synth::BlockMesh mesh;
            mesh.width = block.mesh_width;
            mesh.height = block.mesh_height;
            const size_t count = static_cast<size_t>(mesh.width) * mesh.height;
            const std::string x = base + zqavs_synth::meshFileName('x', c, block.position);
            const std::string y = base + zqavs_synth::meshFileName('y', c, block.position);
            if (!readFloats(x, count, &mesh.x) || !readFloats(y, count, &mesh.y)) {
                *error = "cannot read the meshes " + x + " / " + y;
                return false;
            }
            out->meshes[c].push_back(std::move(mesh));
        }
    }
    bool typeKnown = alpha != "auto";
    out->rig.alpha_type = alpha == "float" ? zqavs_synth::AlphaType::Float : zqavs_synth::AlphaType::U8;
    for (const SeamPlan& seam : report.plan) {
        if (!seam.blended) continue;
        zqavs_synth::AlphaMap map;
        map.camera = seam.camera;
        map.next = seam.neighbour;
        map.width = seam.width;
        map.height = seam.height;
        map.levels = seam.levels;
        const std::string path = base + zqavs_synth::alphaFileName(map.camera, map.next);
        if (!readFile(path, &map.bytes)) {
            *error = "cannot read " + path;
            return false;
        }
        const size_t elements = zqavs_synth::alphaElementCount(map.width, map.height, map.levels);
        if (!typeKnown) {
            out->rig.alpha_type = map.bytes.size() == elements * 4 ? zqavs_synth::AlphaType::Float
                                                                   : zqavs_synth::AlphaType::U8;
            typeKnown = true;
        }
        map.type = out->rig.alpha_type;
        const size_t expected = elements * (map.type == zqavs_synth::AlphaType::Float ? 4 : 1);
        if (map.bytes.size() != expected) {
            *error = path + ": " + std::to_string(map.bytes.size()) + " bytes, expected " + std::to_string(expected) +
                     " for " + (map.type == zqavs_synth::AlphaType::Float ? "float" : "U8") + " alpha";
            return false;
        }
        out->alphas.push_back(std::move(map));
    }
    return true;
}

}  // namespace zqavs
