// The cameras' models both ways, on OpenCV's pinhole and fisheye functions.
#include <opencv2/calib3d.hpp>
#include <opencv2/core/utility.hpp>

#include <algorithm>
#include <cmath>
#include <mutex>

#include "rig.h"

namespace zqavs_calib {

namespace {

constexpr double kPi = 3.14159265358979323846;
// A pinhole camera sees nothing at or behind its image plane's depth 0.
constexpr double kMinPinholeDepth = 1e-6;
// OpenCV's fisheye functions divide by depth; nearer the side than this, our own equations
// (the same model) take over so that the lens can see past 90 degrees.
constexpr double kMinFisheyeDepthForOpenCv = 0.1;
// Where OpenCV's fisheye undistortion stops: it clamps the distorted angle to 90 degrees.
constexpr double kMaxOpenCvThetaD = kPi / 2 - 1e-3;
constexpr int kChunk = 8192;
constexpr int kFoldScanSteps = 4096;
// Where a projected pixel goes when the model cannot see the direction: far outside any image.
const cv::Point2d kNowhere(-1e6, -1e6);

double fisheyeThetaD(const std::vector<double>& D, double theta)
{
    const double t2 = theta * theta;
    return theta * (1 + t2 * (D[0] + t2 * (D[1] + t2 * (D[2] + t2 * D[3]))));
}

// Distorted radius (normalised image plane) of a direction `theta` off the optical axis; for
// a pinhole, tangential terms aside.
double distortedRadius(const CameraSpec& camera, double theta)
{
    const std::vector<double>& D = camera.D;
    if (camera.model == LensModel::Fisheye) return fisheyeThetaD(D, theta);
    const double r = std::tan(theta);
    const double r2 = r * r;
    auto k = [&D](size_t i) { return i < D.size() ? D[i] : 0.0; };
    const double num = 1 + r2 * (k(0) + r2 * (k(1) + r2 * k(4)));
    const double den = 1 + r2 * (k(5) + r2 * (k(6) + r2 * k(7)));
    return r * num / den;
}

double computeFoldAngle(const CameraSpec& camera)
{
    const double end = camera.model == LensModel::Fisheye ? kPi : kPi / 2 - 1e-9;
    double previous = 0.0;
    for (int i = 1; i <= kFoldScanSteps; ++i) {
        const double theta = end * i / kFoldScanSteps;
        const double radius = distortedRadius(camera, theta);
        if (radius > previous) {
            previous = radius;
            continue;
        }
        // The radius peaks within the last two steps: find the peak by ternary search.
        double lo = end * std::max(i - 2, 0) / kFoldScanSteps;
        double hi = theta;
        for (int it = 0; it < 100; ++it) {
            const double a = lo + (hi - lo) / 3;
            const double b = hi - (hi - lo) / 3;
            if (distortedRadius(camera, a) < distortedRadius(camera, b))
                lo = a;
            else
                hi = b;
        }
        return lo;
    }
    return end;
}

// The angle off the axis up to which the model is one-to-one. Callers ask per pixel, so the
// last camera's answer is kept.
double foldAngle(const CameraSpec& camera)
{
    static std::mutex mutex;
    static LensModel cachedModel;
    static std::vector<double> cachedD;
    static double cachedAngle = -1.0;
    std::lock_guard<std::mutex> lock(mutex);
    if (cachedAngle < 0 || cachedModel != camera.model || cachedD != camera.D) {
        cachedModel = camera.model;
        cachedD = camera.D;
        cachedAngle = computeFoldAngle(camera);
    }
    return cachedAngle;
}

// Runs fn(begin, end) over [0, count) in chunks, in parallel.
template <typename Fn>
void forChunks(size_t count, Fn fn)
{
    const int chunks = static_cast<int>((count + kChunk - 1) / kChunk);
    cv::parallel_for_(cv::Range(0, chunks), [&](const cv::Range& range) {
        for (int c = range.start; c < range.end; ++c)
            fn(static_cast<size_t>(c) * kChunk, std::min(count, static_cast<size_t>(c + 1) * kChunk));
    });
}

// The fisheye model's equations where OpenCV's cannot go (at and past 90 degrees).
cv::Point2d projectFisheyeWide(const CameraSpec& camera, const cv::Vec3d& p)
{
    const double rxy = std::hypot(p[0], p[1]);
    const double scale = fisheyeThetaD(camera.D, std::atan2(rxy, p[2])) / rxy;
    return {camera.K(0, 0) * p[0] * scale + camera.K(0, 2), camera.K(1, 1) * p[1] * scale + camera.K(1, 2)};
}

void projectChunk(const CameraSpec& camera, double fold, const cv::Vec3d* world, size_t count, cv::Point2d* pixels,
                  uint8_t* visible)
{
    const bool fisheye = camera.model == LensModel::Fisheye;
    // theta < fold, without an arc tangent per direction (cos falls on [0, pi]).
    const double cosFold = std::cos(fold);
    std::vector<cv::Point3d> viaOpenCv;
    std::vector<size_t> index;
    for (size_t i = 0; i < count; ++i) {
        const cv::Vec3d p = camera.R * world[i];
        visible[i] = p[2] > cosFold * std::sqrt(p.dot(p)) && (fisheye || p[2] > kMinPinholeDepth);
        pixels[i] = kNowhere;
        if (!visible[i]) continue;
        if (fisheye && p[2] < kMinFisheyeDepthForOpenCv) {
            pixels[i] = projectFisheyeWide(camera, p);
            continue;
        }
        viaOpenCv.emplace_back(p[0], p[1], p[2]);
        index.push_back(i);
    }
    if (viaOpenCv.empty()) return;
    std::vector<cv::Point2d> projected;
    const cv::Vec3d zero(0, 0, 0);
    if (fisheye)
        cv::fisheye::projectPoints(viaOpenCv, projected, zero, zero, camera.K, camera.D);
    else
        cv::projectPoints(viaOpenCv, zero, zero, camera.K, camera.D, projected);
    for (size_t j = 0; j < index.size(); ++j) pixels[index[j]] = projected[j];
}

// Inverts the fisheye polynomial for thetaD on [0, fold] (Newton; the polynomial increases there).
double fisheyeTheta(const std::vector<double>& D, double thetaD, double fold)
{
    double theta = std::min(thetaD, fold);
    for (int it = 0; it < 30; ++it) {
        const double t2 = theta * theta;
        const double slope = 1 + t2 * (3 * D[0] + t2 * (5 * D[1] + t2 * (7 * D[2] + t2 * 9 * D[3])));
        const double step = (fisheyeThetaD(D, theta) - thetaD) / std::max(slope, 1e-12);
        theta = std::clamp(theta - step, 0.0, fold);
        if (std::fabs(step) < 1e-14) break;
    }
    return theta;
}

// OpenCV's undistortion iterates a fixed point that stops short of large angles under strong
// distortion; Newton's method on OpenCV's own projection (whose Jacobian with respect to the
// translation is the one with respect to the point) finishes the job.
void refinePinholeInverse(const CameraSpec& camera, const std::vector<cv::Point2d>& pixels,
                          std::vector<cv::Point2d>* plane)
{
    const size_t n = pixels.size();
    std::vector<cv::Point3d> points(n);
    std::vector<cv::Point2d> projected;
    cv::Mat jacobian;
    for (int it = 0; it < 20; ++it) {
        for (size_t i = 0; i < n; ++i) points[i] = cv::Point3d((*plane)[i].x, (*plane)[i].y, 1.0);
        cv::projectPoints(points, cv::Vec3d(), cv::Vec3d(), camera.K, camera.D, projected, jacobian);
        double worst = 0.0;
        for (size_t i = 0; i < n; ++i) {
            const cv::Point2d error = projected[i] - pixels[i];
            worst = std::max(worst, std::fabs(error.x) + std::fabs(error.y));
            // Columns 3 and 4: derivatives with respect to the translation's x and y.
            const double* row0 = jacobian.ptr<double>(static_cast<int>(2 * i));
            const double* row1 = jacobian.ptr<double>(static_cast<int>(2 * i + 1));
            const cv::Matx22d J(row0[3], row0[4], row1[3], row1[4]);
            const double det = cv::determinant(J);
            if (std::fabs(det) < 1e-12) continue;
            const cv::Vec2d step = J.inv() * cv::Vec2d(error.x, error.y);
            (*plane)[i] -= cv::Point2d(step[0], step[1]);
        }
        if (worst < 1e-9) break;
    }
}

// Camera-frame rays of one chunk of pixels.
void unprojectChunk(const CameraSpec& camera, double fold, const cv::Point2d* pixels, size_t count, cv::Vec3d* rays)
{
    // Newton finishes the pinhole case, so a few fixed-point steps do for a start.
    const cv::TermCriteria precise(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 20, 1e-12);
    const cv::TermCriteria start(cv::TermCriteria::COUNT, 10, 0);
    std::vector<cv::Point2d> input(pixels, pixels + count);
    std::vector<cv::Point2d> plane;
    if (camera.model == LensModel::Pinhole) {
        cv::undistortPoints(input, plane, camera.K, camera.D, cv::noArray(), cv::noArray(), start);
        refinePinholeInverse(camera, input, &plane);
        for (size_t i = 0; i < count; ++i) rays[i] = cv::normalize(cv::Vec3d(plane[i].x, plane[i].y, 1.0));
        return;
    }
    const double maxOpenCvThetaD =
        std::min(kMaxOpenCvThetaD, fisheyeThetaD(camera.D, std::min(fold, std::acos(kMinFisheyeDepthForOpenCv))));
    std::vector<size_t> index;
    std::vector<cv::Point2d> viaOpenCv;
    for (size_t i = 0; i < count; ++i) {
        const double xd = (pixels[i].x - camera.K(0, 2)) / camera.K(0, 0);
        const double yd = (pixels[i].y - camera.K(1, 2)) / camera.K(1, 1);
        const double thetaD = std::hypot(xd, yd);
        if (thetaD < maxOpenCvThetaD) {
            viaOpenCv.push_back(pixels[i]);
            index.push_back(i);
            continue;
        }
        const double theta = fisheyeTheta(camera.D, thetaD, fold);
        const double side = std::sin(theta) / thetaD;
        rays[i] = cv::Vec3d(xd * side, yd * side, std::cos(theta));
    }
    if (viaOpenCv.empty()) return;
    cv::fisheye::undistortPoints(viaOpenCv, plane, camera.K, camera.D, cv::noArray(), cv::noArray(), precise);
    for (size_t j = 0; j < index.size(); ++j)
        rays[index[j]] = cv::normalize(cv::Vec3d(plane[j].x, plane[j].y, 1.0));
}

}  // namespace

void projectDirections(const CameraSpec& camera, const std::vector<cv::Vec3d>& worldDirections,
                       std::vector<cv::Point2d>* pixels, std::vector<uint8_t>* visible)
{
    const size_t n = worldDirections.size();
    pixels->resize(n);
    visible->resize(n);
    const double fold = foldAngle(camera);
    forChunks(n, [&](size_t begin, size_t end) {
        projectChunk(camera, fold, worldDirections.data() + begin, end - begin, pixels->data() + begin,
                     visible->data() + begin);
    });
}

void cameraRays(const CameraSpec& camera, const std::vector<cv::Point2d>& pixels, std::vector<cv::Vec3d>* rays,
                std::vector<uint8_t>* valid)
{
    const size_t n = pixels.size();
    rays->resize(n);
    const double fold = foldAngle(camera);
    const cv::Matx33d toWorld = camera.R.t();
    forChunks(n, [&](size_t begin, size_t end) {
        unprojectChunk(camera, fold, pixels.data() + begin, end - begin, rays->data() + begin);
        for (size_t i = begin; i < end; ++i) (*rays)[i] = toWorld * (*rays)[i];
    });
    if (!valid) return;
    // A pixel has a ray when the ray lands back on it: past a fold, or where undistortion did
    // not converge, it does not.
    std::vector<cv::Point2d> back;
    projectDirections(camera, *rays, &back, valid);
    for (size_t i = 0; i < n; ++i) (*valid)[i] = (*valid)[i] && cv::norm(back[i] - pixels[i]) < 0.01;
}

cv::Vec3d cameraRay(const CameraSpec& camera, const cv::Point2d& pixel)
{
    std::vector<cv::Vec3d> rays;
    cameraRays(camera, {pixel}, &rays, nullptr);
    return rays[0];
}

}  // namespace zqavs_calib
