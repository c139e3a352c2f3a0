// Rendering a sphere-map scene through a camera or a panorama, with cv::remap.
#include "scene_render.h"

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace zqavs_calib {

namespace {

constexpr double kPi = 3.14159265358979323846;

// The scene with one wrapped column on each side and one repeated row above and below, so that
// bilinear taps across azimuth +-180 and the poles find the right neighbours.
cv::Mat paddedScene(const zqavs_synth::RgbImage& scene)
{
    const cv::Mat view(scene.height, scene.width, CV_8UC3, const_cast<uint8_t*>(scene.rgb.data()));
    cv::Mat wrapped, padded;
    cv::copyMakeBorder(view, wrapped, 0, 0, 1, 1, cv::BORDER_WRAP);
    cv::copyMakeBorder(wrapped, padded, 1, 1, 0, 0, cv::BORDER_REPLICATE);
    return padded;
}

// Sphere-map position (in the padded scene) of world direction d.
cv::Point2f scenePosition(const cv::Vec3d& d, int width, int height)
{
    const double azimuth = std::atan2(d[0], d[2]);
    const double elevation = std::asin(std::clamp(d[1], -1.0, 1.0));
    // Pixel index coordinates: edge coordinate - 0.5, then + 1 for the padding.
    const double x = (azimuth + kPi) / (2 * kPi) * width + 0.5;
    const double y = (elevation + kPi / 2) / kPi * height + 0.5;
    return {static_cast<float>(x), static_cast<float>(y)};
}

// Samples the scene along `directions` (row-major, width x height); masked-out ones are black.
zqavs_synth::RgbImage sampleScene(const zqavs_synth::RgbImage& scene, const std::vector<cv::Vec3d>& directions,
                                  const std::vector<uint8_t>& mask, int width, int height)
{
    cv::Mat map(height, width, CV_32FC2);
    auto* out = map.ptr<cv::Point2f>();
    cv::parallel_for_(cv::Range(0, height), [&](const cv::Range& rows) {
        for (size_t i = static_cast<size_t>(rows.start) * width; i < static_cast<size_t>(rows.end) * width; ++i)
            out[i] = mask.empty() || mask[i] ? scenePosition(directions[i], scene.width, scene.height)
                                             : cv::Point2f(-10.f, -10.f);
    });
    zqavs_synth::RgbImage image;
    image.width = width;
    image.height = height;
    image.rgb.resize(static_cast<size_t>(width) * height * 3);
    cv::Mat dst(height, width, CV_8UC3, image.rgb.data());
    cv::remap(paddedScene(scene), dst, map, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar());
    return image;
}

}  // namespace

zqavs_synth::RgbImage renderCameraImage(const CameraSpec& camera, const zqavs_synth::RgbImage& scene)
{
    std::vector<cv::Point2d> pixels;
    pixels.reserve(static_cast<size_t>(camera.image_width) * camera.image_height);
    for (int y = 0; y < camera.image_height; ++y)
        for (int x = 0; x < camera.image_width; ++x) pixels.emplace_back(x, y);
    std::vector<cv::Vec3d> rays;
    std::vector<uint8_t> valid;
    cameraRays(camera, pixels, &rays, &valid);
    return sampleScene(scene, rays, valid, camera.image_width, camera.image_height);
}

zqavs_synth::RgbImage renderPanorama(const PanoramaSpec& pano, const zqavs_synth::RgbImage& scene)
{
    std::vector<cv::Vec3d> rays(static_cast<size_t>(pano.width) * pano.height);
    cv::parallel_for_(cv::Range(0, pano.height), [&](const cv::Range& rows) {
        for (int v = rows.start; v < rows.end; ++v)
            for (int u = 0; u < pano.width; ++u) rays[static_cast<size_t>(v) * pano.width + u] = panoramaRay(pano, u, v);
    });
    return sampleScene(scene, rays, {}, pano.width, pano.height);
}

}  // namespace zqavs_calib
