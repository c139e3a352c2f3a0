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

}  // namespace

PSR_INITPARAMS_T layoutFromLint(const LintLayout& lint)
{
    PSR_INITPARAMS_T layout;
    layout.camera_num = static_cast<int>(lint.cameras.size());
    layout.src_width = lint.src_width;
    layout.src_height = lint.src_height;
    layout.bld_width = lint.bld_width;
    layout.bld_height = lint.bld_height;
    layout.step_x = lint.step_x;
    layout.step_y = lint.step_y;
    layout.image_stride = lint.src_width;
    layout.output_image_stride = static_cast<uint32_t>((lint.bld_width + 15) & ~15);
    layout.image_formate = PSR_TYPE_YUV420SP;
    layout.gain_step_x = 32;
    layout.gain_step_y = 64;
    for (const LintCamera& camera : lint.cameras) {
        zqPSR_NONOVERLAP_BLOCK nonoverlap;
        zqPSR_OVERLAP_BLOCK overlap;
        for (const LintBlock& b : camera.blocks) {
            if (!b.overlap) {
                nonoverlap.dst_startx.push_back(b.dst_startx);
                nonoverlap.dst_width.push_back(b.dst_width);
                nonoverlap.mesh_width.push_back(b.mesh_width);
                nonoverlap.mesh_height.push_back(b.mesh_height);
                continue;
            }
            overlap.band_num.push_back(b.band_num);
            overlap.dst_startx.push_back(b.dst_startx);
            overlap.dst_width.push_back(b.dst_width);
            overlap.mesh_width.push_back(b.mesh_width);
            overlap.mesh_height.push_back(b.mesh_height);
            overlap.alpha_width.push_back(b.alpha_width);
            overlap.alpha_height.push_back(b.alpha_height);
        }
        nonoverlap.nonoverlap_num = camera.nonoverlapNum;
        overlap.overlap_num = camera.overlapNum;
        layout.nonoverlap_block.push_back(nonoverlap);
        layout.overlap_block.push_back(overlap);
        layout.image_block_num.push_back(camera.blockCount);
    }
    return layout;
}

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
    out->layout = layoutFromLint(report.layout);
    out->rig.cameras = out->layout.camera_num;
    out->rig.src_width = report.layout.src_width;
    out->rig.src_height = report.layout.src_height;
    out->rig.bld_width = report.layout.bld_width;
    out->rig.bld_height = report.layout.bld_height;
    out->rig.step_x = report.layout.step_x;
    out->rig.step_y = report.layout.step_y;
    out->meshes.assign(report.layout.cameras.size(), {});
    for (size_t c = 0; c < report.layout.cameras.size(); ++c) {
        const auto& blocks = report.layout.cameras[c].blocks;
        for (size_t b = 0; b < blocks.size(); ++b) {
            zqavs_synth::BlockMesh mesh;
            mesh.width = blocks[b].mesh_width;
            mesh.height = blocks[b].mesh_height;
            const size_t count = static_cast<size_t>(mesh.width) * mesh.height;
            const std::string x = base + zqavs_synth::meshFileName('x', static_cast<int>(c), static_cast<int>(b));
            const std::string y = base + zqavs_synth::meshFileName('y', static_cast<int>(c), static_cast<int>(b));
            if (!readFloats(x, count, &mesh.x) || !readFloats(y, count, &mesh.y)) {
                *error = "cannot read the meshes " + x + " / " + y;
                return false;
            }
            out->meshes[c].push_back(std::move(mesh));
        }
    }
    const int cameras = out->layout.camera_num;
    bool typeKnown = alpha != "auto";
    out->rig.alpha_type = alpha == "float" ? zqavs_synth::AlphaType::Float : zqavs_synth::AlphaType::U8;
    for (const SeamPlan& seam : report.plan) {
        if (!seam.blended) continue;
        zqavs_synth::AlphaMap map;
        map.camera = seam.camera;
        map.next = (seam.camera + 1) % cameras;
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
