// Meshes and alpha maps of a laid-out rig, and how far the meshes stray from the exact model.
#include <algorithm>
#include <cmath>

#include "rig_layout_internal.h"

namespace zqavs_calib {

namespace {

struct Block {
    int camera;
    int startx;
    int width;
};

// Every block of the layout in mesh order: per camera, non-overlap blocks then overlap blocks.
std::vector<Block> layoutBlocks(const PSR_INITPARAMS_T& layout)
{
    std::vector<Block> blocks;
    for (int c = 0; c < layout.camera_num; ++c) {
        const PSR_NONOVERLAP_BLOCK& nb = layout.nonoverlap_block[c];
        for (int b = 0; b < nb.nonoverlap_num; ++b) blocks.push_back({c, nb.dst_startx[b], nb.dst_width[b]});
        const PSR_OVERLAP_BLOCK& ob = layout.overlap_block[c];
        for (int b = 0; b < ob.overlap_num; ++b) blocks.push_back({c, ob.dst_startx[b], ob.dst_width[b]});
    }
    return blocks;
}

std::vector<cv::Point2d> project(const CameraSpec& camera, const std::vector<cv::Vec3d>& rays)
{
    std::vector<cv::Point2d> pixels;
    std::vector<uint8_t> visible;
    projectDirections(camera, rays, &pixels, &visible);
    return pixels;
}

// Same pixel-centre convention as the generator's meshes: node (c, r) holds where the output
// point at edge coordinate (startx + c * step, r * step) projects, so that output pixel j,
// whose centre lies at edge coordinate j + 0.5, samples exactly where its own centre projects.
zqavs_synth::BlockMesh buildMesh(const Rig& rig, const Block& block)
{
    const PanoramaSpec& pano = rig.panorama;
    zqavs_synth::BlockMesh mesh;
    mesh.width = block.width / pano.step + 1;
    mesh.height = pano.height / pano.step + 1;
    std::vector<cv::Vec3d> rays;
    for (int r = 0; r < mesh.height; ++r)
        for (int c = 0; c < mesh.width; ++c)
            rays.push_back(panoramaRay(pano, block.startx + c * pano.step - 0.5, r * pano.step - 0.5));
    for (const cv::Point2d& p : project(rig.cameras[block.camera], rays)) {
        mesh.x.push_back(static_cast<float>(p.x));
        mesh.y.push_back(static_cast<float>(p.y));
    }
    return mesh;
}

// What the GPU's linear interpolation of the mesh gives at node coordinates (gx, gy).
cv::Point2d interpolate(const zqavs_synth::BlockMesh& mesh, double gx, double gy)
{
    const int c = std::min(static_cast<int>(gx), mesh.width - 2);
    const int r = std::min(static_cast<int>(gy), mesh.height - 2);
    const double fx = gx - c, fy = gy - r;
    auto at = [&mesh](const std::vector<float>& v, int cc, int rr) { return v[static_cast<size_t>(rr) * mesh.width + cc]; };
    auto mix = [&](const std::vector<float>& v) {
        return (1 - fy) * ((1 - fx) * at(v, c, r) + fx * at(v, c + 1, r)) +
               fy * ((1 - fx) * at(v, c, r + 1) + fx * at(v, c + 1, r + 1));
    };
    return {mix(mesh.x), mix(mesh.y)};
}

struct ErrorSum {
    double max = 0.0;
    double total = 0.0;
    long count = 0;
};

// The mesh against the exact model at every pixel of the block.
void measureMeshError(const Rig& rig, const Block& block, const zqavs_synth::BlockMesh& mesh, ErrorSum* sum)
{
    const PanoramaSpec& pano = rig.panorama;
    std::vector<cv::Vec3d> rays(static_cast<size_t>(block.width));
    for (int v = 0; v < pano.height; ++v) {
        for (int i = 0; i < block.width; ++i) rays[i] = panoramaRay(pano, block.startx + i, v);
        const std::vector<cv::Point2d> exact = project(rig.cameras[block.camera], rays);
        for (int i = 0; i < block.width; ++i) {
            const cv::Point2d p = interpolate(mesh, (i + 0.5) / pano.step, (v + 0.5) / pano.step);
            const double error = cv::norm(p - exact[i]);
            sum->max = std::max(sum->max, error);
            sum->total += error;
            sum->count++;
        }
    }
}

zqavs_synth::RigConfig rigConfig(const Rig& rig)
{
    zqavs_synth::RigConfig config;
    config.cameras = static_cast<int>(rig.cameras.size());
    config.src_width = rig.cameras[0].image_width;
    config.src_height = rig.cameras[0].image_height;
    config.bld_width = rig.panorama.width;
    config.bld_height = rig.panorama.height;
    config.step_x = config.step_y = rig.panorama.step;
    config.band_num = rig.panorama.bands;
    config.alpha_type = rig.panorama.alpha;
    config.overlap_width = rig.panorama.seam_width;
    config.hfov_deg = rig.panorama.hfov_deg;
    return config;
}

}  // namespace

bool calibrateRig(const Rig& rig, RigCalibration* out, std::string* error)
{
    RigCalibration result;
    zqavs_synth::Calibration& calib = result.calibration;
    if (!layoutRig(rig, &calib.layout, &result.seams, &result.warnings, error)) return false;
    calib.rig = rigConfig(rig);
    calib.meshes.resize(rig.cameras.size());
    ErrorSum errors;
    for (const Block& block : layoutBlocks(calib.layout)) {
        calib.meshes[block.camera].push_back(buildMesh(rig, block));
        measureMeshError(rig, block, calib.meshes[block.camera].back(), &errors);
    }
    result.meshError.max = errors.max;
    result.meshError.mean = errors.count ? errors.total / errors.count : 0.0;
    if (result.meshError.max > 0.5)
        result.warnings.push_back(formatText("the meshes stray up to %.2f source pixels from the camera models: "
                                             "lower step (now %d)",
                                             result.meshError.max, rig.panorama.step));
    for (const RigSeam& seam : result.seams) {
        calib.seams.push_back(seam.window);
        calib.alphas.push_back(zqavs_synth::buildAlphaMap(seam.window.left_camera, seam.window.right_camera,
                                                          seam.window.width, rig.panorama.height,
                                                          rig.panorama.bands + 1, rig.panorama.alpha,
                                                          zqavs_synth::SeamProfile::LinearRamp));
    }
    *out = std::move(result);
    return true;
}

int columnOwner(const RigCalibration& calib, int u)
{
    for (const RigSeam& seam : calib.seams) {
        const zqavs_synth::Seam& w = seam.window;
        if (u >= w.startx && u < w.startx + w.width) return u < w.startx + w.width / 2 ? w.left_camera : w.right_camera;
    }
    const PSR_INITPARAMS_T& layout = calib.calibration.layout;
    for (int c = 0; c < layout.camera_num; ++c) {
        const PSR_NONOVERLAP_BLOCK& nb = layout.nonoverlap_block[c];
        for (int b = 0; b < nb.nonoverlap_num; ++b)
            if (u >= nb.dst_startx[b] && u < nb.dst_startx[b] + nb.dst_width[b]) return c;
    }
    return -1;
}

}  // namespace zqavs_calib
