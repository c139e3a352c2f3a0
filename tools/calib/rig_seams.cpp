// Seam paths from the cameras' images, with OpenCV's graph cut and dynamic programming seam
// finders, and the alpha maps they give.
#include "rig_seams.h"

#include <opencv2/imgproc.hpp>
#include <opencv2/stitching/detail/seam_finders.hpp>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "rig_layout_internal.h"

namespace zqavs_calib {

namespace {

// Columns each camera's view is extended by beside the window, where only that camera counts:
// the finders need a region of each image's own to start the path from (the dynamic
// programming one finds no ends with fewer).
constexpr int kOwnMargin = 8;

std::string checkImages(const Rig& rig, const std::vector<cv::Mat>& images)
{
    if (images.size() != rig.cameras.size())
        return formatText("%zu images for %zu cameras: give one per camera, in the rig file's order", images.size(),
                          rig.cameras.size());
    for (size_t c = 0; c < images.size(); ++c) {
        const CameraSpec& camera = rig.cameras[c];
        if (images[c].cols != camera.image_width || images[c].rows != camera.image_height ||
            images[c].type() != CV_8UC3)
            return formatText("camera %zu: the image is %dx%d with %d channels, expected %dx%d with 3", c,
                              images[c].cols, images[c].rows, images[c].channels(), camera.image_width,
                              camera.image_height);
    }
    return std::string();
}

cv::Mat warpWindow(const Rig& rig, int camera, const zqavs_synth::Seam& window, const cv::Mat& image)
{
    const PanoramaSpec& pano = rig.panorama;
    std::vector<cv::Vec3d> rays;
    rays.reserve(static_cast<size_t>(window.width) * pano.height);
    for (int v = 0; v < pano.height; ++v)
        for (int i = 0; i < window.width; ++i) rays.push_back(panoramaRay(pano, window.startx + i, v));
    std::vector<cv::Point2d> pixels;
    std::vector<uint8_t> visible;
    projectDirections(rig.cameras[camera], rays, &pixels, &visible);
    cv::Mat map, view;
    cv::Mat(pixels).reshape(2, pano.height).convertTo(map, CV_32FC2);
    cv::remap(image, view, map, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    return view;
}

// The finders' input: side A's view with its own columns on the left, side B's with its own on
// the right, each one row taller at the top and the bottom, where A owns the left half and B the
// right so that the path runs from the top edge to the bottom one.
struct FinderInput {
    std::vector<cv::UMat> images{2};
    std::vector<cv::UMat> masks{2};
    std::vector<cv::Point> corners{{-kOwnMargin, -1}, {0, -1}};
};

FinderInput finderInput(const SeamViews& views, int depth)
{
    const int width = views.a.cols, height = views.a.rows;
    FinderInput in;
    cv::Mat a, b;
    cv::copyMakeBorder(views.a, a, 1, 1, kOwnMargin, 0, cv::BORDER_REPLICATE);
    cv::copyMakeBorder(views.b, b, 1, 1, 0, kOwnMargin, cv::BORDER_REPLICATE);
    a.convertTo(in.images[0], depth);
    b.convertTo(in.images[1], depth);
    cv::Mat maskA(a.size(), CV_8U, cv::Scalar(255)), maskB(b.size(), CV_8U, cv::Scalar(255));
    for (int row : {0, height + 1}) {
        maskA.row(row).colRange(kOwnMargin + width / 2, kOwnMargin + width).setTo(0);
        maskB.row(row).colRange(0, width / 2).setTo(0);
    }
    maskA.copyTo(in.masks[0]);
    maskB.copyTo(in.masks[1]);
    return in;
}

// 255 where the window shows side A, 0 where it shows side B.
cv::Mat findSideA(const SeamViews& views, SeamFinder finder)
{
    // The graph cut weighs colour differences in floating point; dynamic programming takes 8 bits.
    FinderInput in = finderInput(views, finder == SeamFinder::GraphCut ? CV_32F : CV_8U);
    if (finder == SeamFinder::GraphCut)
        cv::detail::GraphCutSeamFinder(cv::detail::GraphCutSeamFinderBase::COST_COLOR_GRAD)
            .find(in.images, in.corners, in.masks);
    else
        cv::detail::DpSeamFinder(cv::detail::DpSeamFinder::COLOR_GRAD).find(in.images, in.corners, in.masks);
    return in.masks[0].getMat(cv::ACCESS_READ)(cv::Rect(kOwnMargin, 1, views.a.cols, views.a.rows)).clone();
}

// Side A's weights of the finest level: the mask, softened over the two pixels beside the path
// so that the cut itself does not ring through the pyramid's levels.
std::vector<double> finestWeights(const cv::Mat& sideA)
{
    cv::Mat weights;
    sideA.convertTo(weights, CV_64F, 1.0 / 255.0);
    cv::blur(weights, weights, cv::Size(3, 3), cv::Point(-1, -1), cv::BORDER_REPLICATE);
    return std::vector<double>(weights.begin<double>(), weights.end<double>());
}

// How far the two views' grey levels lie apart at each pixel of the window.
cv::Mat greyDifference(const SeamViews& views)
{
    cv::Mat greyA, greyB, difference;
    cv::cvtColor(views.a, greyA, cv::COLOR_RGB2GRAY);
    cv::cvtColor(views.b, greyB, cv::COLOR_RGB2GRAY);
    cv::absdiff(greyA, greyB, difference);
    return difference;
}

// The mean difference at the pixels on either side of a path (those its transition spans).
double disagreementAlong(const cv::Mat& difference, const std::vector<int>& path)
{
    const int last = difference.cols - 1;
    double sum = 0.0;
    for (int row = 0; row < difference.rows; ++row) {
        const int b = std::min(path[row], last);
        const int a = std::max(path[row] - 1, 0);
        sum += (difference.at<uint8_t>(row, a) + difference.at<uint8_t>(row, b)) / 2.0;
    }
    return difference.rows ? sum / difference.rows : 0.0;
}

bool weightBelowHalf(const zqavs_synth::AlphaMap& map, size_t element)
{
    if (map.type == zqavs_synth::AlphaType::U8) return map.bytes[element] < 128;
    float weight;
    std::memcpy(&weight, &map.bytes[element * sizeof weight], sizeof weight);
    return weight < 0.5f;
}

const char* finderName(SeamFinder finder)
{
    switch (finder) {
    case SeamFinder::GraphCut: return "graph cut";
    case SeamFinder::DynamicProgramming: return "dynamic programming";
    case SeamFinder::Straight: break;
    }
    return "straight";
}

}  // namespace

SeamViews warpSeamViews(const Rig& rig, const zqavs_synth::Seam& window, const std::vector<cv::Mat>& images)
{
    return {warpWindow(rig, window.left_camera, window, images[window.left_camera]),
            warpWindow(rig, window.right_camera, window, images[window.right_camera])};
}

std::vector<int> alphaPath(const zqavs_synth::AlphaMap& map)
{
    std::vector<int> path(static_cast<size_t>(map.height), map.width);
    const size_t elementBytes = map.type == zqavs_synth::AlphaType::U8 ? 1 : sizeof(float);
    if (map.bytes.size() < static_cast<size_t>(map.width) * map.height * elementBytes) return path;
    for (int row = 0; row < map.height; ++row)
        for (int x = 0; x < map.width; ++x)
            if (weightBelowHalf(map, static_cast<size_t>(row) * map.width + x)) {
                path[row] = x;
                break;
            }
    return path;
}

bool chooseSeams(const Rig& rig, const std::vector<cv::Mat>& images, SeamFinder finder, RigCalibration* calib,
                 std::vector<SeamChoice>* choices, std::string* error)
{
    *error = checkImages(rig, images);
    if (!error->empty()) return false;
    std::vector<SeamChoice> chosen;
    for (size_t i = 0; i < calib->seams.size(); ++i) {
        const zqavs_synth::Seam& window = calib->seams[i].window;
        const SeamViews views = warpSeamViews(rig, window, images);
        zqavs_synth::AlphaMap& alpha = calib->calibration.alphas[i];
        if (finder != SeamFinder::Straight)
            alpha = zqavs_synth::buildAlphaMap({alpha.camera, alpha.next, alpha.width, alpha.height, alpha.levels},
                                               alpha.type, finestWeights(findSideA(views, finder)));
        SeamChoice choice;
        choice.window = window;
        choice.path = alphaPath(alpha);
        const cv::Mat difference = greyDifference(views);
        choice.pathDisagreement = disagreementAlong(difference, choice.path);
        choice.straightDisagreement =
            disagreementAlong(difference, std::vector<int>(choice.path.size(), window.width / 2));
        chosen.push_back(std::move(choice));
    }
    *choices = std::move(chosen);
    return true;
}

std::string seamReport(const std::vector<SeamChoice>& choices, SeamFinder finder)
{
    std::ostringstream out;
    for (const SeamChoice& choice : choices) {
        const zqavs_synth::Seam& w = choice.window;
        const auto [first, last] = std::minmax_element(choice.path.begin(), choice.path.end());
        out << formatText("seam %d-%d: %s path through columns %d..%d; mean disagreement %.1f along it, %.1f along "
                          "the straight centre line (grey levels)\n",
                          w.left_camera, w.right_camera, finderName(finder), w.startx + *first, w.startx + *last,
                          choice.pathDisagreement, choice.straightDisagreement);
    }
    return out.str();
}

}  // namespace zqavs_calib
