// Real rigs: the rig file (JSON), the cameras' models (OpenCV's pinhole and fisheye models) and
// the rays of the panorama's pixels.
//
// Axes are OpenCV's: x right, y down, z forward. A camera's R rotates world directions into the
// camera's frame (p_cam = R * d). Camera pixels follow OpenCV's convention (pixel centres at
// integer coordinates); so do panorama pixel index coordinates (the centre of pixel (i, j) is
// (i, j)). Nothing here uses GL.
#ifndef ZQAVS_CALIB_RIG_H
#define ZQAVS_CALIB_RIG_H

#include <opencv2/core.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "zqavs_synth.h"

namespace zqavs_calib {

enum class Projection { Equirectangular, Cylindrical };
enum class LensModel { Pinhole, Fisheye };

struct PanoramaSpec {
    Projection projection = Projection::Equirectangular;
    int width = 0;
    int height = 0;
    double hfov_deg = 360.0;
    double vfov_deg = 90.0;
    double yaw_deg = 0.0;      // azimuth of the panorama's centre
    int step = 16;             // mesh step, both directions
    int seam_width = 128;      // blend window per seam, in panorama columns
    int bands = 4;             // the layout's band_num (the blend runs bands + 1 levels)
    zqavs_synth::AlphaType alpha = zqavs_synth::AlphaType::U8;
};

struct CameraSpec {
    LensModel model = LensModel::Pinhole;
    int image_width = 0;
    int image_height = 0;
    cv::Matx33d K = cv::Matx33d::eye();
    std::vector<double> D;     // pinhole: k1 k2 p1 p2 [k3 [k4 k5 k6]]; fisheye: k1 k2 k3 k4
    cv::Matx33d R = cv::Matx33d::eye();
    std::string intrinsics;    // the "intrinsics" file as the rig file names it; empty when inline
};

struct Rig {
    PanoramaSpec panorama;
    std::vector<CameraSpec> cameras;
};

// Reads and checks a rig file. False with *error naming the file and the field at fault, for
// example "rig.json: cameras[1].R: not a rotation (determinant -1.000)".
bool loadRig(const std::string& path, Rig* rig, std::string* error);
// The same from the file's text; "intrinsics" paths are taken relative to `baseDir`, and
// `name` stands for the file in messages.
bool parseRig(const std::string& text, const std::string& baseDir, const std::string& name, Rig* rig,
              std::string* error);
// The rig as rig-file JSON with every camera's model inline (readable back by parseRig).
std::string rigToJson(const Rig& rig);

// The world direction (unit length) seen through panorama pixel index coordinates (u, v).
cv::Vec3d panoramaRay(const PanoramaSpec& pano, double u, double v);

// Where world directions land in a camera's image. visible[i] is 0 where the model cannot see
// direction i at all (behind a pinhole camera, past the angle where a fisheye model stops being
// one-to-one); the pixel may still lie outside the image where visible[i] is 1.
void projectDirections(const CameraSpec& camera, const std::vector<cv::Vec3d>& worldDirections,
                       std::vector<cv::Point2d>* pixels, std::vector<uint8_t>* visible);
// The world direction (unit length) seen through a camera pixel.
cv::Vec3d cameraRay(const CameraSpec& camera, const cv::Point2d& pixel);
// The same for many pixels at once. valid[i] (when asked for) is 0 where no direction lands on
// pixel i (past the angle where the model folds back, outside a fisheye's image circle).
void cameraRays(const CameraSpec& camera, const std::vector<cv::Point2d>& pixels, std::vector<cv::Vec3d>* rays,
                std::vector<uint8_t>* valid);
// True when a pixel lies at least `margin` pixels inside the image's outermost pixel centres.
bool insideImage(const CameraSpec& camera, const cv::Point2d& pixel, double margin = 0.0);

}  // namespace zqavs_calib

#endif  // ZQAVS_CALIB_RIG_H
