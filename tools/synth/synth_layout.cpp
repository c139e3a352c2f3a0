// Rig validation and panorama layout.
#include <algorithm>
#include <cmath>

#include "synth_internal.h"
#include "zqavs_synth.h"

namespace zqavs_synth {

int roundUp16(int value)
{
    return (value + 15) / 16 * 16;
}

int nv12Stride(int width)
{
    return roundUp16(width);
}

size_t nv12Bytes(int width, int height)
{
    return static_cast<size_t>(nv12Stride(width)) * height * 3 / 2;
}

std::vector<Seam> buildSeams(const RigConfig& rig)
{
    // Seams sit around the boundaries of equal shares, snapped to the mesh grid. The panorama
    // does not wrap: there is no seam between the last camera and camera 0.
    std::vector<Seam> seams;
    for (int k = 0; k + 1 < rig.cameras; ++k) {
        double centre = static_cast<double>(k + 1) * rig.bld_width / rig.cameras;
        double start = (centre - rig.overlap_width / 2.0) / rig.step_x;
        Seam seam;
        seam.left_camera = k;
        seam.right_camera = k + 1;
        seam.startx = static_cast<int>(std::lround(start)) * rig.step_x;
        seam.width = rig.overlap_width;
        seams.push_back(seam);
    }
    return seams;
}

static zqavs_calib_core::MeshGrid meshGrid(const RigConfig& rig)
{
    return {rig.step_x, rig.step_y, rig.bld_height};
}

PSR_INITPARAMS_T buildLayout(const RigConfig& rig)
{
    PSR_INITPARAMS_T layout = zqavs_calib_core::emptyLayout(
        {rig.cameras, rig.src_width, rig.src_height, rig.bld_width, rig.bld_height, rig.step_x, rig.step_y});
    const std::vector<Seam> seams = buildSeams(rig);
    const int last = rig.cameras - 1;
    for (int c = 0; c < rig.cameras; ++c) {
        PSR_NONOVERLAP_BLOCK& nonoverlap = layout.nonoverlap_block[c];
        PSR_OVERLAP_BLOCK& overlap = layout.overlap_block[c];
        int start = c == 0 ? 0 : seams[c - 1].startx + seams[c - 1].width;
        int end = c == last ? rig.bld_width : seams[c].startx;
        zqavs_calib_core::appendNonoverlapBlock(&nonoverlap, start, end - start, meshGrid(rig));
        // Left overlap first: the planning pairs a camera's last overlap block with the
        // next camera's first one.
        if (c > 0) zqavs_calib_core::appendOverlapBlock(&overlap, seams[c - 1].startx, seams[c - 1].width, rig.band_num, meshGrid(rig));
        if (c < last) zqavs_calib_core::appendOverlapBlock(&overlap, seams[c].startx, seams[c].width, rig.band_num, meshGrid(rig));
        layout.image_block_num[c] = nonoverlap.nonoverlap_num + overlap.overlap_num;
    }
    return layout;
}

void cameraColumnRange(const PSR_INITPARAMS_T& layout, int camera, int* first, int* last)
{
    int lo = layout.bld_width;
    int hi = 0;
    const PSR_NONOVERLAP_BLOCK& nb = layout.nonoverlap_block[camera];
    for (int b = 0; b < nb.nonoverlap_num; ++b) {
        lo = std::min(lo, nb.dst_startx[b]);
        hi = std::max(hi, nb.dst_startx[b] + nb.dst_width[b]);
    }
    const PSR_OVERLAP_BLOCK& ob = layout.overlap_block[camera];
    for (int b = 0; b < ob.overlap_num; ++b) {
        lo = std::min(lo, ob.dst_startx[b]);
        hi = std::max(hi, ob.dst_startx[b] + ob.dst_width[b]);
    }
    *first = lo;
    *last = hi;
}

std::vector<uint8_t> coveredColumns(const PSR_INITPARAMS_T& layout)
{
    std::vector<uint8_t> mask(static_cast<size_t>(std::max(layout.bld_width, 0)), 0);
    auto mark = [&mask](int start, int width) {
        for (int x = std::max(start, 0); x < start + width && x < static_cast<int>(mask.size()); ++x) mask[x] = 1;
    };
    for (int c = 0; c < layout.camera_num; ++c) {
        const PSR_NONOVERLAP_BLOCK& nb = layout.nonoverlap_block[c];
        for (int b = 0; b < nb.nonoverlap_num; ++b) mark(nb.dst_startx[b], nb.dst_width[b]);
        const PSR_OVERLAP_BLOCK& ob = layout.overlap_block[c];
        for (int b = 0; b < ob.overlap_num; ++b) mark(ob.dst_startx[b], ob.dst_width[b]);
    }
    return mask;
}

static std::string validateSizes(const RigConfig& rig)
{
    if (rig.cameras < 1 || rig.cameras > zqavs_calib_core::kMaxCameras)
        return "cameras must be 1.." + std::to_string(zqavs_calib_core::kMaxCameras);
    if (rig.src_width < 2 || rig.src_height < 2 || rig.src_width % 2 || rig.src_height % 2)
        return "source size must be positive and even (NV12)";
    if (rig.bld_width < 2 || rig.bld_height < 2 || rig.bld_width % 2 || rig.bld_height % 2)
        return "panorama size must be positive and even (NV12)";
    if (rig.bld_width >= zqavs_calib_core::kMaxTextureSize || rig.bld_height >= zqavs_calib_core::kMaxTextureSize)
        return "panorama size must be below " + std::to_string(zqavs_calib_core::kMaxTextureSize);
    if (rig.step_x < 1 || rig.step_y < 1) return "mesh steps must be positive";
    if (rig.bld_width % rig.step_x) return "bld_width must be a multiple of step_x";
    if (rig.bld_height % rig.step_y) return "bld_height must be a multiple of step_y";
    if (rig.band_num < 0) return "band_num must not be negative";
    if (rig.band_num > 30 || (rig.bld_height >> rig.band_num) < 1)
        return "bld_height is too small for band_num + 1 levels";
    if (!rig.gains.empty() && static_cast<int>(rig.gains.size()) != rig.cameras)
        return "gains must be empty or one per camera";
    for (double gain : rig.gains)
        if (!(gain > 0.0)) return "gains must be positive";
    if (!rig.casts.empty() && static_cast<int>(rig.casts.size()) != 3 * rig.cameras)
        return "casts must be empty or three (R, G, B) per camera";
    for (double cast : rig.casts)
        if (!(cast > 0.0)) return "casts must be positive";
    if (rig.hfov_deg < 0.0 || rig.hfov_deg > 360.0) return "hfov_deg must be 0 (automatic) or up to 360";
    // At least a pixel, so that the bilinear taps of every mesh node lie on the image.
    if (!(rig.edge_margin_px >= 1.0) || rig.edge_margin_px * 4 >= std::min(rig.src_width, rig.src_height))
        return "edge_margin_px must be at least 1 and below a quarter of the source size";
    if (!rig.scene_image.rgb.empty() &&
        rig.scene_image.rgb.size() != static_cast<size_t>(rig.scene_image.width) * rig.scene_image.height * 3)
        return "scene_image size does not match its pixels";
    return std::string();
}

static std::string validateOverlaps(const RigConfig& rig)
{
    if (rig.cameras == 1) return std::string();
    if (rig.overlap_width < rig.step_x || rig.overlap_width % rig.step_x)
        return "overlap_width must be a positive multiple of step_x";
    if (rig.band_num > 30 || (rig.overlap_width >> rig.band_num) < 1)
        return "overlap_width is too small for band_num + 1 levels";
    // Every camera keeps a non-overlap block of at least one mesh step.
    PSR_INITPARAMS_T layout = buildLayout(rig);
    for (int c = 0; c < rig.cameras; ++c) {
        if (layout.nonoverlap_block[c].dst_width[0] < rig.step_x)
            return "overlap_width leaves camera " + std::to_string(c) + " no column of its own";
    }
    return std::string();
}

std::string validateRig(const RigConfig& rig)
{
    std::string error = validateSizes(rig);
    if (error.empty()) error = validateOverlaps(rig);
    if (!error.empty()) return error;
    PSR_INITPARAMS_T layout = buildLayout(rig);
    error = validateGeometry(rig, layout);
    if (error.empty()) error = findFileNameCollision(layout);
    return error;
}

bool generateCalibration(const RigConfig& rig, Calibration* out, std::string* error)
{
    std::string problem = validateRig(rig);
    if (!problem.empty()) {
        if (error) *error = problem;
        return false;
    }
    Calibration calib;
    calib.rig = rig;
    calib.layout = buildLayout(rig);
    calib.seams = buildSeams(rig);
    calib.geometry = buildGeometry(rig, calib.layout);
    const PSR_INITPARAMS_T& layout = calib.layout;
    calib.meshes.resize(rig.cameras);
    for (int c = 0; c < rig.cameras; ++c) {
        const PSR_NONOVERLAP_BLOCK& nb = layout.nonoverlap_block[c];
        for (int b = 0; b < nb.nonoverlap_num; ++b)
            calib.meshes[c].push_back(buildBlockMesh(calib.geometry, c, nb.dst_startx[b], nb.mesh_width[b],
                                                     nb.mesh_height[b], rig.step_x, rig.step_y));
        const PSR_OVERLAP_BLOCK& ob = layout.overlap_block[c];
        for (int b = 0; b < ob.overlap_num; ++b)
            calib.meshes[c].push_back(buildBlockMesh(calib.geometry, c, ob.dst_startx[b], ob.mesh_width[b],
                                                     ob.mesh_height[b], rig.step_x, rig.step_y));
    }
    for (const Seam& seam : calib.seams)
        calib.alphas.push_back(buildAlphaMap(seam.left_camera, seam.right_camera, seam.width, rig.bld_height,
                                             rig.band_num + 1, rig.alpha_type, rig.seam_profile));
    *out = std::move(calib);
    return true;
}

}  // namespace zqavs_synth
