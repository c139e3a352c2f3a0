// Real rigs end to end on the real driver: camera images rendered from a scene through OpenCV
// models, calibrated (from the true rotations, or from perturbed ones refined on the images),
// stitched by the library, and compared with the scene seen directly. Against an exact per-pixel
// remap of the same images, the library may lose no more than 1 dB of Y PSNR from the true rig
// (only the mesh step's interpolation may cost anything), 1.5 dB from the refined one. Seams
// chosen from the images keep an object one camera alone sees whole or leave it out.
#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "gpu/stitch_fixture.h"
#include "rig_layout.h"
#include "rig_refine.h"
#include "rig_seams.h"
#include "scene_render.h"

namespace {

using namespace zqavs_calib;

constexpr double kDegree = 3.14159265358979323846 / 180.0;

// A camera whose optical axis points at azimuth `yaw_deg` on the horizon.
CameraSpec camera(LensModel model, double yaw_deg, double focal, std::vector<double> D)
{
    const double a = yaw_deg * kDegree;
    return {model, 320, 240, cv::Matx33d(focal, 0, 159.5, 0, focal, 119.5, 0, 0, 1), std::move(D),
            cv::Matx33d(std::cos(a), 0, -std::sin(a), 0, 1, 0, std::sin(a), 0, std::cos(a)), ""};
}

// Three fisheyes around the horizon; camera 0 looks at the panorama's edge, so it owns both
// ends and every seam, the wrap-around one included, is blended.
Rig fisheyeRing()
{
    Rig rig{{Projection::Equirectangular, 768, 192, 360.0, 80.0, 0.0, 16, 64, 3, zqavs_synth::AlphaType::U8}, {}};
    for (double yaw : {180.0, -60.0, 60.0})
        rig.cameras.push_back(camera(LensModel::Fisheye, yaw, 95, {0.02, -0.01, 0.003, -0.001}));
    return rig;
}

// Three pinholes with barrel distortion side by side on a cylinder.
Rig pinholeFan()
{
    Rig rig{{Projection::Cylindrical, 640, 160, 140.0, 40.0, 0.0, 16, 64, 3, zqavs_synth::AlphaType::Float}, {}};
    for (double yaw : {-40.0, 0.0, 40.0})
        rig.cameras.push_back(camera(LensModel::Pinhole, yaw, 200, {-0.15, 0.03, 0.001, -0.001, 0.0}));
    return rig;
}

// A sphere map of random blocks at every scale, so that features show at any distance.
zqavs_synth::RgbImage makeTexturedScene(int width, int height, uint64_t seed)
{
    cv::RNG rng(seed);
    cv::Mat sum(height, width, CV_32FC3, cv::Scalar::all(0));
    for (int cells = 8; cells <= width / 8; cells *= 2) {
        cv::Mat grid(cells / 2, cells, CV_32FC3), blocks;
        rng.fill(grid, cv::RNG::UNIFORM, 0.0, 1.0);
        cv::resize(grid, blocks, sum.size(), 0, 0, cv::INTER_NEAREST);
        sum += blocks;
    }
    cv::Mat scene;
    cv::normalize(sum, scene, 0, 255, cv::NORM_MINMAX, CV_8UC3);
    // The cameras sample it without a prefilter: keep detail to a few of their pixels.
    cv::GaussianBlur(scene, scene, cv::Size(), 1.0);
    return {width, height, std::vector<uint8_t>(scene.data, scene.data + scene.total() * 3)};
}

cv::Mat lumaOf(const zqavs_synth::RgbImage& image)
{
    const zqavs_synth::Nv12Image nv12 = zqavs_synth::rgbToNv12(image);
    return cv::Mat(image.height, image.width, CV_8UC1, const_cast<uint8_t*>(nv12.data.data()), nv12.stride).clone();
}

zqavs_synth::PlaneView planeOf(const cv::Mat& y)
{
    return {y.data, y.cols, y.rows, static_cast<int>(y.step)};
}

// Each panorama pixel sampled bilinearly from its column's owner, where the model puts its ray.
cv::Mat exactRemap(const Rig& rig, const RigCalibration& calib, const std::vector<cv::Mat>& cameraY)
{
    const PanoramaSpec& pano = rig.panorama;
    std::vector<cv::Vec3d> rays;
    for (int v = 0; v < pano.height; ++v)
        for (int u = 0; u < pano.width; ++u) rays.push_back(panoramaRay(pano, u, v));
    cv::Mat out(pano.height, pano.width, CV_8UC1, cv::Scalar(0));
    for (size_t c = 0; c < rig.cameras.size(); ++c) {
        std::vector<cv::Point2d> pixels;
        std::vector<uint8_t> visible;
        projectDirections(rig.cameras[c], rays, &pixels, &visible);
        cv::Mat map, sampled;
        cv::Mat(pixels).reshape(2, pano.height).convertTo(map, CV_32FC2);
        cv::remap(cameraY[c], sampled, map, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
        for (int u = 0; u < pano.width; ++u)
            if (columnOwner(calib, u) == static_cast<int>(c)) sampled.col(u).copyTo(out.col(u));
    }
    return out;
}

// What a rig's cameras see of a scene.
struct Views {
    std::vector<zqavs_synth::Nv12Image> nv12;
    std::vector<cv::Mat> y;
    std::vector<cv::Mat> rgb;
};

// Camera `odd` (when given) sees `oddScene` instead.
Views renderViews(const Rig& rig, const zqavs_synth::RgbImage& scene, int odd = -1,
                  const zqavs_synth::RgbImage* oddScene = nullptr)
{
    Views views;
    for (size_t c = 0; c < rig.cameras.size(); ++c) {
        zqavs_synth::RgbImage image = renderCameraImage(rig.cameras[c], static_cast<int>(c) == odd ? *oddScene : scene);
        views.nv12.push_back(zqavs_synth::rgbToNv12(image));
        views.y.push_back(lumaOf(image));
        views.rgb.push_back(cv::Mat(image.height, image.width, CV_8UC3, image.rgb.data()).clone());
    }
    return views;
}

// The luma of the panorama the library stitches from `views` with a calibration written to a
// scratch directory; empty when it cannot.
cv::Mat stitchedLuma(const RigCalibration& calib, const Views& views)
{
    stitch_test::RigSession live;
    std::string error;
    if (!zqavs_synth::writeCalibration(calib.calibration, live.dir.path, &error) ||
        !live.session.init({live.dir.path, nullptr, calib.calibration.rig}, &error)) {
        ADD_FAILURE() << error;
        return cv::Mat();
    }
    for (size_t c = 0; c < views.nv12.size(); ++c) live.session.setInput(static_cast<int>(c), views.nv12[c]);
    const stitch_test::Frame stitched = live.next();
    if (stitched.bytes.empty()) return cv::Mat();
    const zqavs_synth::PlaneView y = stitched.luma();
    return cv::Mat(y.height, y.width, CV_8UC1, const_cast<uint8_t*>(y.data), y.stride).clone();
}

// Y PSNR of the stitched panorama against `seen`.
double stitchedPsnr(const RigCalibration& calib, const Views& views, const cv::Mat& seen)
{
    const cv::Mat stitched = stitchedLuma(calib, views);
    return stitched.empty() ? 0.0 : zqavs_synth::psnr(planeOf(stitched), planeOf(seen), {});
}

double angleDeg(const cv::Matx33d& a, const cv::Matx33d& b)
{
    cv::Vec3d v;
    cv::Rodrigues(a * b.t(), v);
    return cv::norm(v) / kDegree;
}

// Every camera but the anchor turned by 2 to 5 degrees about a random axis.
Rig perturbed(Rig rig, uint64_t seed)
{
    cv::RNG rng(seed);
    for (size_t c = 1; c < rig.cameras.size(); ++c) {
        const cv::Vec3d axis = cv::normalize(cv::Vec3d(rng.gaussian(1), rng.gaussian(1), rng.gaussian(1)));
        cv::Matx33d turn;
        cv::Rodrigues(axis * rng.uniform(2.0, 5.0) * kDegree, turn);
        rig.cameras[c].R = turn * rig.cameras[c].R;
    }
    return rig;
}

RigCalibration calibrated(const Rig& rig)
{
    RigCalibration calib;
    std::string error;
    EXPECT_TRUE(calibrateRig(rig, &calib, &error)) << error;
    return calib;
}

struct RealRig {
    const char* name;
    Rig (*rig)();
    uint64_t seed;  // of the perturbation and the textured scene
};

class CalibRoundTrip : public testing::TestWithParam<RealRig> {};

TEST_P(CalibRoundTrip, TrueAndRefinedRigsStitchCloseToTheExactRemap)
{
    const RealRig& param = GetParam();
    const Rig truth = param.rig();
    const RigCalibration truthCalib = calibrated(truth);
    const zqavs_synth::RgbImage scene = makeTexturedScene(1440, 720, param.seed);
    const Views views = renderViews(truth, scene);
    // Against the scene seen directly: the library with the true rig, and the exact remap.
    const cv::Mat seen = lumaOf(renderPanorama(truth.panorama, scene));
    const double library = stitchedPsnr(truthCalib, views, seen);
    const double exact = zqavs_synth::psnr(planeOf(exactRemap(truth, truthCalib, views.y)), planeOf(seen), {});
    printf("[ roundtrip ] %s: Y PSNR library %.2f dB, exact remap %.2f dB; mesh error max %.3f mean %.3f px\n",
           param.name, library, exact, truthCalib.meshError.max, truthCalib.meshError.mean);
    // The renderer and the remap must agree closely, or the comparison proves nothing.
    EXPECT_GT(exact, 25.0);
    EXPECT_GE(library, exact - 1.0);

    const Rig given = perturbed(truth, param.seed);
    RigRefinement refined;
    std::string error;
    ASSERT_TRUE(refineRig(given, views.y, &refined, &error)) << error;
    printf("[ refine ] %s\n%s", param.name, refinementReport(refined).c_str());
    EXPECT_TRUE(refined.warnings.empty());
    for (size_t c = 0; c < truth.cameras.size(); ++c)
        EXPECT_LT(angleDeg(refined.rig.cameras[c].R, truth.cameras[c].R), 0.05)
            << "camera " << c << ", given " << angleDeg(given.cameras[c].R, truth.cameras[c].R) << " degrees off";
    const double refinedLibrary = stitchedPsnr(calibrated(refined.rig), views, seen);
    printf("[ refine ] %s: Y PSNR refined rig %.2f dB\n", param.name, refinedLibrary);
    EXPECT_GE(refinedLibrary, exact - 1.5);
}

INSTANTIATE_TEST_SUITE_P(Rigs, CalibRoundTrip,
                         testing::Values(RealRig{"fisheye360", fisheyeRing, 11},
                                         RealRig{"pinholeDistorted", pinholeFan, 12}),
                         [](const testing::TestParamInfo<RealRig>& info) { return std::string(info.param.name); });

// Rigs the layout must refuse, each with the words its message must hold.
TEST(CalibLayout, RefusesRigsItCannotStitch)
{
    const struct {
        const char* what;
        void (*spoil)(Rig*);
        const char* expected;
    } cases[] = {
        {"gap between cameras", [](Rig* r) { r->cameras[2] = camera(LensModel::Pinhole, 100, 200, {}); },
         "seen by no camera: lower hfov_deg"},
        {"rows beyond the images", [](Rig* r) { r->panorama.vfov_deg = 100; }, "lower vfov_deg"},
        {"file order against the geometry", [](Rig* r) { std::swap(r->cameras[1].R, r->cameras[2].R); },
         "cameras 0 and 2 are neighbours"},
        {"narrow overlap", [](Rig* r) { r->panorama.bands = 6, r->panorama.seam_width = 256; }, "lower bands"},
    };
    for (const auto& c : cases) {
        Rig rig = pinholeFan();
        c.spoil(&rig);
        RigCalibration calib;
        std::string error;
        EXPECT_FALSE(calibrateRig(rig, &calib, &error)) << c.what;
        EXPECT_NE(error.find(c.expected), std::string::npos) << c.what << ": " << error;
    }
}

// Images that cannot be trusted: pairs without texture fall back to the given rotations with a
// warning, or fail when nothing is left; images that do not fit the rig are refused.
TEST(RigRefine, FallsBackOrRefusesImagesItCannotUse)
{
    const struct {
        const char* what;
        void (*spoil)(std::vector<cv::Mat>*);
        bool refined;
        const char* expected;
    } cases[] = {
        {"camera 2 featureless", [](std::vector<cv::Mat>* y) { (*y)[2].setTo(128); }, true, "camera 2 keeps its given"},
        {"camera 1 featureless", [](std::vector<cv::Mat>* y) { (*y)[1].setTo(128); }, false, "no pair of neighbouring"},
        {"an image missing", [](std::vector<cv::Mat>* y) { y->pop_back(); }, false, "2 images for 3 cameras"},
        {"an image too small", [](std::vector<cv::Mat>* y) { (*y)[1] = (*y)[1](cv::Rect(0, 0, 100, 80)).clone(); },
         false, "camera 1: the image is 100x80"},
    };
    const Rig truth = pinholeFan();
    const Rig given = perturbed(truth, 3);
    const Views views = renderViews(truth, makeTexturedScene(1440, 720, 3));
    for (const auto& c : cases) {
        std::vector<cv::Mat> images;
        for (const cv::Mat& y : views.y) images.push_back(y.clone());
        c.spoil(&images);
        RigRefinement refined;
        std::string error;
        ASSERT_EQ(refineRig(given, images, &refined, &error), c.refined) << c.what << ": " << error;
        const std::string text = c.refined ? refinementReport(refined) : error;
        EXPECT_NE(text.find(c.expected), std::string::npos) << c.what << ": " << text;
        if (!c.refined) continue;
        EXPECT_EQ(refined.rig.cameras[2].R, given.cameras[2].R) << c.what;
        EXPECT_LT(angleDeg(refined.rig.cameras[1].R, truth.cameras[1].R), 0.05) << c.what;
    }
}

// ---- seams chosen from the images ---------------------------------------------------------

// The scene with a white disc where panorama pixel `at` looks.
zqavs_synth::RgbImage withDisc(zqavs_synth::RgbImage scene, const PanoramaSpec& pano, cv::Point2d at, int radius)
{
    const cv::Vec3d d = panoramaRay(pano, at.x, at.y);
    const double azimuth = std::atan2(d[0], d[2]), elevation = std::asin(d[1]);
    const cv::Point centre(cvRound((azimuth / CV_PI + 1.0) / 2.0 * scene.width - 0.5),
                           cvRound((elevation / CV_PI + 0.5) * scene.height - 0.5));
    cv::Mat image(scene.height, scene.width, CV_8UC3, scene.rgb.data());
    cv::circle(image, centre, radius, cv::Scalar::all(255), cv::FILLED, cv::LINE_AA);
    return scene;
}

// Where the seam's two views disagree strongly (the object one camera alone sees), how much of
// side A's view the stitched panorama shows: 1 all of it, 0 none (side B's view), a double
// image in between. NaN when the views nowhere disagree.
double weightOfSideA(const Rig& rig, const zqavs_synth::Seam& window, const Views& views, const cv::Mat& stitched)
{
    const SeamViews seen = warpSeamViews(rig, window, views.y);
    double sum = 0.0;
    int pixels = 0;
    for (int row = 0; row < seen.a.rows; ++row)
        for (int x = 0; x < seen.a.cols; ++x) {
            const double a = seen.a.at<uint8_t>(row, x), b = seen.b.at<uint8_t>(row, x);
            if (std::abs(a - b) < 60) continue;
            sum += (stitched.at<uint8_t>(row, window.startx + x) - b) / (a - b);
            ++pixels;
        }
    return pixels ? sum / pixels : std::nan("");
}

RigCalibration withSeams(const Rig& rig, const Views& views, SeamFinder finder, std::vector<SeamChoice>* choices)
{
    RigCalibration calib = calibrated(rig);
    std::string error;
    EXPECT_TRUE(chooseSeams(rig, views.rgb, finder, &calib, choices, &error)) << error;
    return calib;
}

struct SeamRow {
    const char* name;
    SeamFinder finder;
    bool doubleImage;   // the straight ramp shows the object half from each camera
};

class SeamPaths : public testing::TestWithParam<SeamRow> {};

// Camera 0 alone sees a disc a little left of seam 0-1's centre line. A path around it shows it
// whole or not at all; the straight ramp mixes both views there. With nothing in the seams, the
// chosen paths cost no more than half a decibel against the straight seams.
TEST_P(SeamPaths, AnObjectOneCameraSeesIsWholeOrAbsent)
{
    const SeamRow& param = GetParam();
    const Rig rig = pinholeFan();
    const zqavs_synth::RgbImage scene = makeTexturedScene(1440, 720, 21);
    const zqavs_synth::Seam window = calibrated(rig).seams[0].window;
    const cv::Point2d disc(window.startx + window.width / 2 - 6, rig.panorama.height / 2);
    const zqavs_synth::RgbImage sceneOfA = withDisc(scene, rig.panorama, disc, 7);
    const Views object = renderViews(rig, scene, window.left_camera, &sceneOfA);

    std::vector<SeamChoice> choices;
    const RigCalibration calib = withSeams(rig, object, param.finder, &choices);
    printf("[ seams ] %s, camera %d alone sees a disc:\n%s", param.name, window.left_camera,
           seamReport(choices, param.finder).c_str());
    // Every row keeps side A on the left of its path and side B on the right.
    for (const SeamChoice& choice : choices) {
        const auto [first, last] = std::minmax_element(choice.path.begin(), choice.path.end());
        EXPECT_GT(*first, 0);
        EXPECT_LT(*last, choice.window.width);
    }
    const cv::Mat stitched = stitchedLuma(calib, object);
    const double weight = weightOfSideA(rig, window, object, stitched);
    printf("[ seams ] %s: the panorama shows %.2f of camera %d's view where the cameras disagree\n", param.name,
           weight, window.left_camera);
    if (param.doubleImage) {
        EXPECT_GT(weight, 0.3);
        EXPECT_LT(weight, 0.7);
    } else {
        EXPECT_TRUE(weight < 0.12 || weight > 0.88) << weight;
        EXPECT_LT(choices[0].pathDisagreement, choices[0].straightDisagreement / 2);
    }

    const Views plain = renderViews(rig, scene);
    const cv::Mat seen = lumaOf(renderPanorama(rig.panorama, scene));
    const double straight = stitchedPsnr(calibrated(rig), plain, seen);
    const double chosen = stitchedPsnr(withSeams(rig, plain, param.finder, &choices), plain, seen);
    printf("[ seams ] %s, nothing in the seams: Y PSNR %.2f dB, straight %.2f dB\n", param.name, chosen, straight);
    EXPECT_GE(chosen, straight - 0.5);
}

INSTANTIATE_TEST_SUITE_P(Finders, SeamPaths,
                         testing::Values(SeamRow{"graphCut", SeamFinder::GraphCut, false},
                                         SeamRow{"dynamicProgramming", SeamFinder::DynamicProgramming, false},
                                         SeamRow{"straight", SeamFinder::Straight, true}),
                         [](const testing::TestParamInfo<SeamRow>& info) { return std::string(info.param.name); });

}  // namespace
