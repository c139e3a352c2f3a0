#include "rig_fixture.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <cmath>

#include "gpu/stitch_fixture.h"
#include "scene_render.h"

namespace rig_test {

constexpr double kPi = 3.14159265358979323846;

zqavs_calib::CameraSpec camera(zqavs_calib::LensModel model, double yaw_deg, double focal, std::vector<double> D)
{
    zqavs_calib::CameraSpec cam;
    cam.model = model;
    cam.image_width = 320;
    cam.image_height = 240;
    cam.K = cv::Matx33d(focal, 0, 159.5, 0, focal, 119.5, 0, 0, 1);
    cam.D = std::move(D);
    const double a = yaw_deg * kPi / 180.0;
    cam.R = cv::Matx33d(std::cos(a), 0, -std::sin(a), 0, 1, 0, std::sin(a), 0, std::cos(a));
    return cam;
}

zqavs_calib::Rig fisheyeRing()
{
    zqavs_calib::Rig rig;
    rig.panorama = {zqavs_calib::Projection::Equirectangular, 768, 192, 360.0, 80.0, 0.0, 16, 64, 3,
                    zqavs_synth::AlphaType::U8};
    const std::vector<double> D{0.02, -0.01, 0.003, -0.001};
    for (double yaw : {180.0, -60.0, 60.0}) rig.cameras.push_back(camera(zqavs_calib::LensModel::Fisheye, yaw, 95, D));
    return rig;
}

zqavs_calib::Rig pinholeFan()
{
    zqavs_calib::Rig rig;
    rig.panorama = {zqavs_calib::Projection::Cylindrical, 640, 160, 140.0, 40.0, 0.0, 16, 64, 3,
                    zqavs_synth::AlphaType::Float};
    const std::vector<double> D{-0.15, 0.03, 0.001, -0.001, 0.0};
    for (double yaw : {-40.0, 0.0, 40.0}) rig.cameras.push_back(camera(zqavs_calib::LensModel::Pinhole, yaw, 200, D));
    return rig;
}

zqavs_synth::RgbImage makeTexturedScene(int width, int height, uint64_t seed)
{
    cv::RNG rng(seed);
    cv::Mat sum(height, width, CV_32FC3, cv::Scalar::all(0));
    for (int cells = 8; cells <= width / 8; cells *= 2) {
        cv::Mat grid(cells / 2, cells, CV_32FC3);
        rng.fill(grid, cv::RNG::UNIFORM, 0.0, 1.0);
        cv::Mat smooth;
        cv::resize(grid, smooth, sum.size(), 0, 0, cv::INTER_CUBIC);
        sum += smooth;
    }
    cv::Mat scene;
    cv::normalize(sum, scene, 0, 255, cv::NORM_MINMAX, CV_8UC3);
    const int shapes = width * height / 400;
    for (int i = 0; i < shapes; ++i) {
        const cv::Point at(rng.uniform(0, width), rng.uniform(0, height));
        const cv::Scalar colour(rng.uniform(0, 256), rng.uniform(0, 256), rng.uniform(0, 256));
        const int size = rng.uniform(2, height / 40);
        if (i % 3 == 0)
            cv::circle(scene, at, size, colour, cv::FILLED, cv::LINE_AA);
        else if (i % 3 == 1)
            cv::rectangle(scene, at, at + cv::Point(size, rng.uniform(2, 2 * size)), colour, cv::FILLED);
        else
            cv::line(scene, at, at + cv::Point(rng.uniform(-3, 4) * size, rng.uniform(-3, 4) * size), colour, 2,
                     cv::LINE_AA);
    }
    // The cameras sample it without a prefilter: keep detail to a few of their pixels.
    cv::GaussianBlur(scene, scene, cv::Size(), 1.0);
    zqavs_synth::RgbImage image;
    image.width = width;
    image.height = height;
    image.rgb.assign(scene.data, scene.data + scene.total() * 3);
    return image;
}

cv::Mat lumaOf(const zqavs_synth::RgbImage& image)
{
    const zqavs_synth::Nv12Image nv12 = zqavs_synth::rgbToNv12(image);
    return cv::Mat(image.height, image.width, CV_8UC1, const_cast<uint8_t*>(nv12.data.data()), nv12.stride).clone();
}

namespace {

zqavs_synth::PlaneView planeOf(const cv::Mat& y)
{
    return {y.data, y.cols, y.rows, static_cast<int>(y.step)};
}

cv::Mat exactRemap(const zqavs_calib::Rig& rig, const zqavs_calib::RigCalibration& calib,
                   const std::vector<cv::Mat>& cameraY)
{
    const zqavs_calib::PanoramaSpec& pano = rig.panorama;
    cv::Mat out(pano.height, pano.width, CV_8UC1, cv::Scalar(0));
    for (size_t c = 0; c < rig.cameras.size(); ++c) {
        std::vector<cv::Vec3d> rays;
        std::vector<cv::Point> where;
        for (int v = 0; v < pano.height; ++v)
            for (int u = 0; u < pano.width; ++u)
                if (zqavs_calib::columnOwner(calib, u) == static_cast<int>(c)) {
                    rays.push_back(zqavs_calib::panoramaRay(pano, u, v));
                    where.emplace_back(u, v);
                }
        std::vector<cv::Point2d> pixels;
        std::vector<uint8_t> visible;
        zqavs_calib::projectDirections(rig.cameras[c], rays, &pixels, &visible);
        cv::Mat map(pano.height, pano.width, CV_32FC2, cv::Scalar(0, 0));
        cv::Mat owned(pano.height, pano.width, CV_8UC1, cv::Scalar(0));
        for (size_t i = 0; i < where.size(); ++i) {
            map.at<cv::Vec2f>(where[i]) = cv::Vec2f(static_cast<float>(pixels[i].x), static_cast<float>(pixels[i].y));
            owned.at<uint8_t>(where[i]) = 255;
        }
        cv::Mat sampled;
        cv::remap(cameraY[c], sampled, map, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
        sampled.copyTo(out, owned);
    }
    return out;
}

// The panorama's Y as the library stitches it from a calibration written to a scratch directory.
cv::Mat stitch(const zqavs_calib::RigCalibration& calib, const std::vector<zqavs_synth::Nv12Image>& inputs)
{
    stitch_test::TempDir dir;
    zqavs::StitchSetup setup;
    setup.calibDir = dir.path;
    setup.rig = calib.calibration.rig;
    zqavs::StitchSession session;
    std::string error;
    double ms = 0.0;
    bool stitched = zqavs_synth::writeCalibration(calib.calibration, dir.path, &error) && session.init(setup, &error);
    for (size_t c = 0; stitched && c < inputs.size(); ++c) session.setInput(static_cast<int>(c), inputs[c]);
    if (!(stitched = stitched && session.frame(&ms, &error))) {
        ADD_FAILURE() << error;
        return cv::Mat();
    }
    const zqavs_synth::Nv12View view = session.outputView();
    return cv::Mat(view.height, view.width, CV_8UC1, const_cast<uint8_t*>(view.data), view.stride).clone();
}

}  // namespace

Views renderViews(const zqavs_calib::Rig& rig, const zqavs_synth::RgbImage& scene)
{
    Views views;
    for (const zqavs_calib::CameraSpec& cam : rig.cameras) {
        const zqavs_synth::RgbImage image = zqavs_calib::renderCameraImage(cam, scene);
        views.nv12.push_back(zqavs_synth::rgbToNv12(image));
        views.y.push_back(lumaOf(image));
    }
    return views;
}

Psnrs panoramaPsnrs(const zqavs_calib::Rig& truth, const zqavs_calib::RigCalibration& truthCalib,
                    const zqavs_calib::RigCalibration& calib, const zqavs_synth::RgbImage& scene, const Views& views)
{
    const cv::Mat seen = lumaOf(zqavs_calib::renderPanorama(truth.panorama, scene));
    const cv::Mat stitched = stitch(calib, views.nv12);
    if (stitched.empty()) return {};
    return {zqavs_synth::psnr(planeOf(stitched), planeOf(seen), {}),
            zqavs_synth::psnr(planeOf(exactRemap(truth, truthCalib, views.y)), planeOf(seen), {})};
}

}  // namespace rig_test
