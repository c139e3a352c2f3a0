// The panorama's rays and the image bounds of a camera.
#include <cmath>

#include "rig.h"

namespace zqavs_calib {

namespace {

constexpr double kDegree = 3.14159265358979323846 / 180.0;

}  // namespace

cv::Vec3d panoramaRay(const PanoramaSpec& pano, double u, double v)
{
    const double theta = (pano.yaw_deg + ((u + 0.5) / pano.width - 0.5) * pano.hfov_deg) * kDegree;
    const double across = (v + 0.5) / pano.height - 0.5;
    if (pano.projection == Projection::Equirectangular) {
        const double phi = across * pano.vfov_deg * kDegree;
        return {std::sin(theta) * std::cos(phi), std::sin(phi), std::cos(theta) * std::cos(phi)};
    }
    const double t = across * 2.0 * std::tan(pano.vfov_deg * kDegree / 2.0);
    return cv::normalize(cv::Vec3d(std::sin(theta), t, std::cos(theta)));
}

bool insideImage(const CameraSpec& camera, const cv::Point2d& pixel, double margin)
{
    return pixel.x >= margin && pixel.y >= margin && pixel.x <= camera.image_width - 1 - margin &&
           pixel.y <= camera.image_height - 1 - margin;
}

}  // namespace zqavs_calib
