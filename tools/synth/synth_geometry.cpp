// The cylindrical rig: panorama columns are azimuths, panorama rows are heights on the
// cylinder, each camera is a pinhole looking out from the axis.
#include <algorithm>
#include <cmath>

#include "synth_internal.h"
#include "zqavs_synth.h"

namespace zqavs_synth {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Beyond this a camera's image plane would need an impractically wide angle.
constexpr double kMaxHalfAngle = 75.0 * kPi / 180.0;
// Directions this far off the axis are treated as not seen at all.
constexpr double kBehindAngle = 89.0 * kPi / 180.0;

double rigHfov(const RigConfig& rig)
{
    double degrees = rig.hfov_deg > 0.0 ? rig.hfov_deg : std::min(40.0 * rig.cameras, 320.0);
    return degrees * kPi / 180.0;
}

// Half the azimuth span of a camera's blocks.
double cameraHalfAngle(const PSR_INITPARAMS_T& layout, int camera, double pano_fx)
{
    int first = 0, last = 0;
    cameraColumnRange(layout, camera, &first, &last);
    return (last - first) / 2.0 / pano_fx;
}

double azimuthOfEdge(const RigGeometry& geo, double u)
{
    return (u / geo.bld_width - 0.5) * geo.hfov;
}

}  // namespace

std::string validateGeometry(const RigConfig& rig, const PSR_INITPARAMS_T& layout)
{
    const double pano_fx = rig.bld_width / rigHfov(rig);
    for (int c = 0; c < rig.cameras; ++c) {
        if (cameraHalfAngle(layout, c, pano_fx) > kMaxHalfAngle)
            return "camera " + std::to_string(c) + " would need a field of view above 150 degrees: lower hfov_deg";
    }
    return std::string();
}

RigGeometry buildGeometry(const RigConfig& rig, const PSR_INITPARAMS_T& layout)
{
    RigGeometry geo;
    geo.bld_width = rig.bld_width;
    geo.bld_height = rig.bld_height;
    geo.hfov = rigHfov(rig);
    geo.pano_fx = rig.bld_width / geo.hfov;
    const double usableHalfWidth = rig.src_width / 2.0 - rig.edge_margin_px;
    const double usableHalfHeight = rig.src_height / 2.0 - rig.edge_margin_px;
    for (int c = 0; c < rig.cameras; ++c) {
        int first = 0, last = 0;
        cameraColumnRange(layout, c, &first, &last);
        double half = cameraHalfAngle(layout, c, geo.pano_fx);
        CameraModel cam;
        cam.yaw = azimuthOfEdge(geo, (first + last) / 2.0);
        cam.focal = usableHalfWidth / std::tan(half);
        cam.cx = rig.src_width / 2.0;
        cam.cy = rig.src_height / 2.0;
        geo.cameras.push_back(cam);
        // Rows stretch so that every camera's corners still see the panorama's top and bottom
        // (a point at the block edge lands 1 / cos(half) further out than on the axis).
        double needed = cam.focal * (rig.bld_height / 2.0) / (usableHalfHeight * std::cos(half));
        geo.pano_fy = std::max(geo.pano_fy, needed);
    }
    return geo;
}

bool panoramaToCamera(const RigGeometry& geo, int camera, double px, double py, double* sx, double* sy)
{
    const CameraModel& cam = geo.cameras[camera];
    double alpha = azimuthOfEdge(geo, px + 0.5) - cam.yaw;
    if (std::fabs(alpha) >= kBehindAngle) return false;
    double height = (py + 0.5 - geo.bld_height / 2.0) / geo.pano_fy;
    *sx = cam.cx + cam.focal * std::tan(alpha) - 0.5;
    *sy = cam.cy + cam.focal * height / std::cos(alpha) - 0.5;
    return true;
}

void cameraToPanorama(const RigGeometry& geo, int camera, double sx, double sy, double* px, double* py)
{
    const CameraModel& cam = geo.cameras[camera];
    double alpha = std::atan((sx + 0.5 - cam.cx) / cam.focal);
    double height = (sy + 0.5 - cam.cy) / cam.focal * std::cos(alpha);
    *px = ((cam.yaw + alpha) / geo.hfov + 0.5) * geo.bld_width - 0.5;
    *py = height * geo.pano_fy + geo.bld_height / 2.0 - 0.5;
}

BlockMesh buildBlockMesh(const RigGeometry& geo, int camera, int dst_startx, int mesh_width, int mesh_height,
                         int step_x, int step_y)
{
    // The GPU interpolates the node values linearly and output pixel j's centre lies at edge
    // coordinate j + 0.5; storing the source position of pixel index (edge - 0.5) makes pixel j
    // sample exactly where its own centre projects.
    BlockMesh mesh;
    mesh.width = mesh_width;
    mesh.height = mesh_height;
    const size_t count = static_cast<size_t>(mesh_width) * mesh_height;
    mesh.x.resize(count);
    mesh.y.resize(count);
    for (int r = 0; r < mesh_height; ++r) {
        for (int c = 0; c < mesh_width; ++c) {
            double sx = 0.0, sy = 0.0;
            panoramaToCamera(geo, camera, dst_startx + c * step_x - 0.5, r * step_y - 0.5, &sx, &sy);
            mesh.x[static_cast<size_t>(r) * mesh_width + c] = static_cast<float>(sx);
            mesh.y[static_cast<size_t>(r) * mesh_width + c] = static_cast<float>(sy);
        }
    }
    return mesh;
}

}  // namespace zqavs_synth
