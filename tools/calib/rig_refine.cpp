// Rotations from images: features, matches between neighbours, a robust rotation per pair
// (RANSAC over ray pairs with the Kabsch solution), then Gauss-Newton on all free rotations.
#include "rig_refine.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include <algorithm>
#include <cmath>
#include <queue>

#include "rig_layout_internal.h"

namespace zqavs_calib {

namespace {

constexpr double kDegree = 3.14159265358979323846 / 180.0;
// Descriptors this close to where a fisheye's image circle ends see its black border.
constexpr int kBorderErodePx = 6;
constexpr double kRatioTest = 0.8;
// Half the default thresholds: small images need every feature they have to average out noise.
constexpr double kSiftContrastThreshold = 0.02;
constexpr float kAkazeThreshold = 0.0003f;
// OpenCV's SIFT reports positions in its doubled first octave halved, which puts them a quarter
// pixel right of and below the pixel-centre convention the camera models use; uncorrected, that
// turns every camera by a fraction of a degree.
constexpr double kSiftPixelShift = -0.25;
constexpr int kRansacIterations = 500;
constexpr uint64_t kRansacSeed = 0x5eed;
constexpr int kJointIterations = 20;
constexpr int kPatchRadius = 8;
// Past this the first solution was too far off for the patches to be trusted.
constexpr double kMaxPatchShiftPx = 1.5;
// A rig that is right already may come out a hair worse by noise alone.
constexpr double kWorseTolerancePx = 0.05;

struct Features {
    std::vector<cv::Point2d> points;
    std::vector<cv::Vec3d> rays;   // in the camera's frame
    cv::Mat descriptors;
};

// A matched pair: the same scene point in both cameras.
struct RayMatch {
    cv::Vec3d rayA, rayB;          // camera frames
    cv::Point2d pixelA, pixelB;
};

struct PairData {
    PairRefinement summary;
    std::vector<RayMatch> inliers;
};

CameraSpec unrotated(const CameraSpec& camera)
{
    CameraSpec local = camera;
    local.R = cv::Matx33d::eye();
    return local;
}

// Pixels where the model has a ray (a fisheye's image circle), away from its edge.
cv::Mat featureMask(const CameraSpec& camera)
{
    std::vector<cv::Point2d> pixels;
    for (int y = 0; y < camera.image_height; ++y)
        for (int x = 0; x < camera.image_width; ++x) pixels.emplace_back(x, y);
    std::vector<cv::Vec3d> rays;
    std::vector<uint8_t> valid;
    cameraRays(unrotated(camera), pixels, &rays, &valid);
    cv::Mat mask(camera.image_height, camera.image_width, CV_8UC1);
    std::transform(valid.begin(), valid.end(), mask.data, [](uint8_t v) { return v ? 255 : 0; });
    cv::erode(mask, mask, cv::getStructuringElement(cv::MORPH_RECT, {2 * kBorderErodePx + 1, 2 * kBorderErodePx + 1}));
    return mask;
}

cv::Ptr<cv::Feature2D> makeDetector(FeatureDetector detector)
{
    switch (detector) {
    case FeatureDetector::Akaze: return cv::AKAZE::create(cv::AKAZE::DESCRIPTOR_MLDB, 0, 3, kAkazeThreshold);
    case FeatureDetector::Orb: return cv::ORB::create(4000);
    case FeatureDetector::Sift: break;
    }
    return cv::SIFT::create(0, 3, kSiftContrastThreshold);
}

Features detectFeatures(const CameraSpec& camera, const cv::Mat& image, FeatureDetector detector)
{
    std::vector<cv::KeyPoint> keypoints;
    Features features;
    makeDetector(detector)->detectAndCompute(image, featureMask(camera), keypoints, features.descriptors);
    const double shift = detector == FeatureDetector::Sift ? kSiftPixelShift : 0.0;
    for (const cv::KeyPoint& k : keypoints) features.points.emplace_back(k.pt.x + shift, k.pt.y + shift);
    cameraRays(unrotated(camera), features.points, &features.rays, nullptr);
    return features;
}

// Neighbours in the panorama: each camera and the next, and the last with the first around a
// 360 degree panorama.
std::vector<std::pair<int, int>> neighbourPairs(const Rig& rig)
{
    const int n = static_cast<int>(rig.cameras.size());
    std::vector<std::pair<int, int>> pairs;
    for (int c = 0; c + 1 < n; ++c) pairs.emplace_back(c, c + 1);
    if (rig.panorama.hfov_deg >= 360.0 && n > 2) pairs.emplace_back(n - 1, 0);
    return pairs;
}

double slackPx(const CameraSpec& camera, const RefineOptions& options)
{
    return camera.K(0, 0) * 2 * options.maxInitialErrorDeg * kDegree;
}

// The features of camera `from` that the given rotations put inside camera `to`'s image, give
// or take how far those rotations may be off.
std::vector<int> featuresSeenBy(const Features& features, const CameraSpec& from, const CameraSpec& to,
                                const RefineOptions& options)
{
    std::vector<cv::Vec3d> world;
    for (const cv::Vec3d& ray : features.rays) world.push_back(from.R.t() * ray);
    std::vector<cv::Point2d> pixels;
    std::vector<uint8_t> visible;
    projectDirections(to, world, &pixels, &visible);
    std::vector<int> seen;
    for (size_t i = 0; i < pixels.size(); ++i)
        if (visible[i] && insideImage(to, pixels[i], -slackPx(to, options))) seen.push_back(static_cast<int>(i));
    return seen;
}

cv::Mat selectRows(const cv::Mat& descriptors, const std::vector<int>& rows)
{
    cv::Mat out(static_cast<int>(rows.size()), descriptors.cols, descriptors.type());
    for (size_t i = 0; i < rows.size(); ++i) descriptors.row(rows[i]).copyTo(out.row(static_cast<int>(i)));
    return out;
}

// Ratio-tested matches in the predicted common view whose rays the given rotations put no
// farther apart than their errors allow.
std::vector<RayMatch> matchPair(const Rig& rig, const std::vector<Features>& features, int a, int b,
                                const RefineOptions& options)
{
    const CameraSpec& camA = rig.cameras[a];
    const CameraSpec& camB = rig.cameras[b];
    const std::vector<int> inA = featuresSeenBy(features[a], camA, camB, options);
    const std::vector<int> inB = featuresSeenBy(features[b], camB, camA, options);
    if (inA.size() < 2 || inB.size() < 2) return {};
    const int norm = options.detector == FeatureDetector::Sift ? cv::NORM_L2 : cv::NORM_HAMMING;
    std::vector<std::vector<cv::DMatch>> knn;
    cv::BFMatcher(norm).knnMatch(selectRows(features[a].descriptors, inA), selectRows(features[b].descriptors, inB),
                                 knn, 2);
    const double maxApart = std::cos((2 * options.maxInitialErrorDeg + 2) * kDegree);
    std::vector<RayMatch> matches;
    for (const std::vector<cv::DMatch>& m : knn) {
        if (m.size() < 2 || m[0].distance > kRatioTest * m[1].distance) continue;
        const int i = inA[m[0].queryIdx];
        const int j = inB[m[0].trainIdx];
        const cv::Vec3d rayA = features[a].rays[i];
        const cv::Vec3d rayB = features[b].rays[j];
        if ((camA.R.t() * rayA).dot(camB.R.t() * rayB) < maxApart) continue;
        matches.push_back({rayA, rayB, features[a].points[i], features[b].points[j]});
    }
    return matches;
}

// The rotation R that best takes rayA to rayB over the given matches (Kabsch).
cv::Matx33d fitRotation(const std::vector<RayMatch>& matches, const std::vector<int>& subset)
{
    cv::Matx33d h = cv::Matx33d::zeros();
    for (int i : subset) h += matches[i].rayB * matches[i].rayA.t();
    cv::Matx33d u, vt;
    cv::Matx31d w;
    cv::SVD::compute(h, w, u, vt);
    const double d = cv::determinant(u * vt) < 0 ? -1.0 : 1.0;
    return u * cv::Matx33d(1, 0, 0, 0, 1, 0, 0, 0, d) * vt;
}

std::vector<int> agreeing(const std::vector<RayMatch>& matches, const cv::Matx33d& r, double maxChord)
{
    std::vector<int> inliers;
    for (size_t i = 0; i < matches.size(); ++i)
        if (cv::norm(matches[i].rayB - r * matches[i].rayA) < maxChord) inliers.push_back(static_cast<int>(i));
    return inliers;
}

// The matches that agree with the best-supported relative rotation (RANSAC on two-ray samples,
// then refitted on its inliers).
std::vector<RayMatch> robustInliers(const std::vector<RayMatch>& matches, double maxChord)
{
    if (matches.size() < 2) return {};
    cv::RNG rng(kRansacSeed);
    std::vector<int> best;
    const int n = static_cast<int>(matches.size());
    for (int it = 0; it < kRansacIterations; ++it) {
        const int i = rng.uniform(0, n);
        const int j = rng.uniform(0, n);
        if (i == j || cv::norm(matches[i].rayA.cross(matches[j].rayA)) < 1e-3) continue;
        std::vector<int> inliers = agreeing(matches, fitRotation(matches, {i, j}), maxChord);
        if (inliers.size() > best.size()) best = std::move(inliers);
    }
    for (int refit = 0; refit < 2 && best.size() >= 2; ++refit) best = agreeing(matches, fitRotation(matches, best), maxChord);
    std::vector<RayMatch> out;
    for (int i : best) out.push_back(matches[i]);
    return out;
}

double percentile(std::vector<double> values, double fraction)
{
    if (values.empty()) return 0.0;
    const size_t k = std::min(values.size() - 1, static_cast<size_t>(fraction * values.size()));
    std::nth_element(values.begin(), values.begin() + static_cast<long>(k), values.end());
    return values[k];
}

// How far, in pixels, each camera's feature lies from where the other camera's ray lands.
ErrorStats reprojectionErrors(const CameraSpec& camA, const CameraSpec& camB, const std::vector<RayMatch>& matches)
{
    std::vector<cv::Vec3d> fromA, fromB;
    for (const RayMatch& m : matches) {
        fromA.push_back(camA.R.t() * m.rayA);
        fromB.push_back(camB.R.t() * m.rayB);
    }
    std::vector<cv::Point2d> inB, inA;
    std::vector<uint8_t> visibleB, visibleA;
    projectDirections(camB, fromA, &inB, &visibleB);
    projectDirections(camA, fromB, &inA, &visibleA);
    std::vector<double> errors;
    for (size_t i = 0; i < matches.size(); ++i) {
        errors.push_back(cv::norm(inB[i] - matches[i].pixelB));
        errors.push_back(cv::norm(inA[i] - matches[i].pixelA));
    }
    return {percentile(errors, 0.5), percentile(errors, 0.95)};
}

cv::Matx33d skew(const cv::Vec3d& v)
{
    return {0, -v[2], v[1], v[2], 0, -v[0], -v[1], v[0], 0};
}

// Gauss-Newton on small rotations applied in each free camera's frame, minimising the distance
// between the world directions of matched rays (the chord of their angle).
void refineJointly(const std::vector<PairData>& pairs, const std::vector<int>& freeIndex, int freeCount,
                   std::vector<cv::Matx33d>* rotations)
{
    const int unknowns = 3 * freeCount;
    for (int it = 0; it < kJointIterations; ++it) {
        cv::Mat normal = cv::Mat::zeros(unknowns, unknowns, CV_64F);
        cv::Mat gradient = cv::Mat::zeros(unknowns, 1, CV_64F);
        for (const PairData& pair : pairs) {
            if (!pair.summary.trusted) continue;
            const int cams[2] = {pair.summary.left, pair.summary.right};
            for (const RayMatch& m : pair.inliers) {
                const cv::Vec3d rays[2] = {m.rayA, m.rayB};
                const cv::Vec3d residual = (*rotations)[cams[0]].t() * rays[0] - (*rotations)[cams[1]].t() * rays[1];
                cv::Matx33d jac[2];
                for (int s = 0; s < 2; ++s) jac[s] = (s == 0 ? 1.0 : -1.0) * (*rotations)[cams[s]].t() * skew(rays[s]);
                for (int s = 0; s < 2; ++s) {
                    const int p = freeIndex[cams[s]];
                    if (p < 0) continue;
                    cv::Mat g = gradient.rowRange(3 * p, 3 * p + 3);
                    g += cv::Mat(jac[s].t() * residual);
                    for (int t = 0; t < 2; ++t) {
                        const int q = freeIndex[cams[t]];
                        if (q < 0) continue;
                        cv::Mat block = normal(cv::Rect(3 * q, 3 * p, 3, 3));
                        block += cv::Mat(jac[s].t() * jac[t]);
                    }
                }
            }
        }
        cv::Mat step;
        if (!cv::solve(normal, -gradient, step, cv::DECOMP_CHOLESKY)) return;
        for (size_t c = 0; c < rotations->size(); ++c) {
            if (freeIndex[c] < 0) continue;
            cv::Matx33d turn;
            cv::Rodrigues(cv::Vec3d(step.ptr<double>(3 * freeIndex[c])), turn);
            (*rotations)[c] = turn * (*rotations)[c];
        }
        if (cv::norm(step, cv::NORM_INF) < 1e-12) return;
    }
}

// Camera b's side of each match moved to where camera a's patch around its point lies in b's
// image, to a small fraction of a pixel: b's image is warped into a's frame through the current
// rotations and aligned with the patch by ECC, which ignores gain and offset between cameras.
// Feature positions alone stray by tenths of a pixel, and not at random.
void alignMatchesOnPatches(const CameraSpec& a, const CameraSpec& b, const cv::Mat& imageA, const cv::Mat& imageB,
                           std::vector<RayMatch>* matches)
{
    const int side = 2 * kPatchRadius + 1;
    const cv::Matx33d aToB = b.R * a.R.t();
    std::vector<size_t> patched;
    std::vector<cv::Point2d> grid;
    for (size_t i = 0; i < matches->size(); ++i) {
        const cv::Point2d centre = (*matches)[i].pixelA;
        if (!insideImage(a, centre, kPatchRadius + 1)) continue;
        patched.push_back(i);
        for (int y = -kPatchRadius; y <= kPatchRadius; ++y)
            for (int x = -kPatchRadius; x <= kPatchRadius; ++x) grid.push_back(centre + cv::Point2d(x, y));
    }
    std::vector<cv::Vec3d> rays;
    std::vector<uint8_t> hasRay;
    cameraRays(unrotated(a), grid, &rays, &hasRay);
    for (cv::Vec3d& ray : rays) ray = aToB * ray;
    std::vector<cv::Point2d> inB;
    std::vector<uint8_t> visible;
    projectDirections(unrotated(b), rays, &inB, &visible);
    cv::Mat floatA, floatB;
    imageA.convertTo(floatA, CV_32F);
    imageB.convertTo(floatB, CV_32F);
    const cv::TermCriteria until(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 50, 1e-5);
    for (size_t k = 0; k < patched.size(); ++k) {
        RayMatch& m = (*matches)[patched[k]];
        cv::Mat map(side, side, CV_32FC2);
        bool seen = true;
        for (int j = 0; j < side * side; ++j) {
            const size_t g = k * side * side + j;
            seen = seen && hasRay[g] && visible[g] && insideImage(b, inB[g], 1.0);
            map.at<cv::Vec2f>(j / side, j % side) = cv::Vec2f(static_cast<float>(inB[g].x), static_cast<float>(inB[g].y));
        }
        if (!seen) continue;
        cv::Mat patchA, warpedB;
        cv::getRectSubPix(floatA, {side, side}, cv::Point2f(m.pixelA), patchA);
        cv::remap(floatB, warpedB, map, cv::noArray(), cv::INTER_LINEAR);
        cv::Mat shift = cv::Mat::eye(2, 3, CV_32F);
        try {
            cv::findTransformECC(patchA, warpedB, shift, cv::MOTION_TRANSLATION, until, cv::noArray(), 1);
        } catch (const cv::Exception&) {
            continue;   // a flat or ambiguous patch: the feature's own position stays
        }
        const cv::Point2d t(shift.at<float>(0, 2), shift.at<float>(1, 2));
        if (cv::norm(t) > kMaxPatchShiftPx) continue;
        m.rayB = aToB * cameraRay(unrotated(a), m.pixelA + t);
        std::vector<cv::Point2d> pixel;
        projectDirections(unrotated(b), {m.rayB}, &pixel, &visible);
        m.pixelB = pixel[0];
    }
}

double angleBetweenDeg(const cv::Matx33d& a, const cv::Matx33d& b)
{
    cv::Vec3d v;
    cv::Rodrigues(a * b.t(), v);
    return cv::norm(v) / kDegree;
}

// Cameras linked to the anchor through trusted pairs, not counting the ones held at their given
// rotations.
std::vector<bool> reachableFromAnchor(const std::vector<PairData>& pairs, const std::vector<bool>& held, int cameras)
{
    std::vector<bool> reached(cameras, false);
    std::queue<int> todo;
    reached[0] = true;
    todo.push(0);
    while (!todo.empty()) {
        const int c = todo.front();
        todo.pop();
        for (const PairData& pair : pairs) {
            const PairRefinement& s = pair.summary;
            if (!s.trusted || (s.left != c && s.right != c)) continue;
            const int other = s.left == c ? s.right : s.left;
            if (reached[other] || held[other]) continue;
            reached[other] = true;
            todo.push(other);
        }
    }
    return reached;
}

// The rotations that best agree with the trusted pairs, cameras not linked to the anchor (or
// held) staying as given. freeIndex[c] is camera c's place among the unknowns, or -1.
std::vector<cv::Matx33d> solveRotations(const Rig& rig, const std::vector<PairData>& pairs,
                                        const std::vector<bool>& held, std::vector<int>* freeIndex)
{
    const int n = static_cast<int>(rig.cameras.size());
    const std::vector<bool> reached = reachableFromAnchor(pairs, held, n);
    freeIndex->assign(n, -1);
    int freeCount = 0;
    for (int c = 1; c < n; ++c)
        if (reached[c]) (*freeIndex)[c] = freeCount++;
    std::vector<cv::Matx33d> rotations;
    for (const CameraSpec& cam : rig.cameras) rotations.push_back(cam.R);
    if (freeCount > 0) refineJointly(pairs, *freeIndex, freeCount, &rotations);
    return rotations;
}

CameraSpec withRotation(const CameraSpec& camera, const cv::Matx33d& r)
{
    CameraSpec out = camera;
    out.R = r;
    return out;
}

bool checkImages(const Rig& rig, const std::vector<cv::Mat>& images, std::string* error)
{
    if (images.size() != rig.cameras.size()) {
        *error = formatText("%zu images for %zu cameras: give one per camera, in the rig file's order", images.size(),
                            rig.cameras.size());
        return false;
    }
    for (size_t c = 0; c < images.size(); ++c) {
        const CameraSpec& cam = rig.cameras[c];
        if (images[c].type() == CV_8UC1 && images[c].cols == cam.image_width && images[c].rows == cam.image_height)
            continue;
        *error = formatText("camera %zu: the image is %dx%d, the rig's camera %dx%d", c, images[c].cols,
                            images[c].rows, cam.image_width, cam.image_height);
        return false;
    }
    return true;
}

std::string pairName(const PairRefinement& pair)
{
    return formatText("pair %d-%d", pair.left, pair.right);
}

// Per pair of neighbours its matches and those that agree on one rotation; pairs with too few
// are marked untrusted with a warning.
std::vector<PairData> matchNeighbours(const Rig& rig, const std::vector<Features>& features,
                                      const RefineOptions& options, std::vector<std::string>* warnings)
{
    std::vector<PairData> pairs;
    for (const auto& [a, b] : neighbourPairs(rig)) {
        const std::vector<RayMatch> matches = matchPair(rig, features, a, b, options);
        const double focal = std::min(rig.cameras[a].K(0, 0), rig.cameras[b].K(0, 0));
        PairData pair;
        pair.inliers = robustInliers(matches, options.inlierThresholdPx / focal);
        PairRefinement& s = pair.summary;
        s.left = a;
        s.right = b;
        s.matches = static_cast<int>(matches.size());
        s.inliers = static_cast<int>(pair.inliers.size());
        s.trusted = s.inliers >= options.minInliers;
        if (!s.trusted)
            warnings->push_back(formatText("%s: %d inliers of %d matches, fewer than %d to trust: left out",
                                           pairName(s).c_str(), s.inliers, s.matches, options.minInliers));
        pairs.push_back(std::move(pair));
    }
    return pairs;
}

// The trusted pairs' matches aligned on patches through `rotations`, and their errors with the
// given rotations.
void alignTrustedPairs(const Rig& rig, const std::vector<cv::Matx33d>& rotations, const std::vector<cv::Mat>& images,
                       std::vector<PairData>* pairs)
{
    for (PairData& pair : *pairs) {
        PairRefinement& s = pair.summary;
        if (s.trusted)
            alignMatchesOnPatches(withRotation(rig.cameras[s.left], rotations[s.left]),
                                  withRotation(rig.cameras[s.right], rotations[s.right]), images[s.left],
                                  images[s.right], &pair.inliers);
        s.before = reprojectionErrors(rig.cameras[s.left], rig.cameras[s.right], pair.inliers);
    }
}

// Solves, holding back at their given rotations the cameras of any pair the solution makes
// worse, until none is. held[c] says which were.
std::vector<cv::Matx33d> solveHoldingBack(const Rig& rig, std::vector<PairData>* pairs, std::vector<bool>* held,
                                          std::vector<int>* freeIndex, std::vector<std::string>* warnings)
{
    for (;;) {
        const std::vector<cv::Matx33d> rotations = solveRotations(rig, *pairs, *held, freeIndex);
        bool worse = false;
        for (PairData& pair : *pairs) {
            PairRefinement& s = pair.summary;
            s.after = reprojectionErrors(withRotation(rig.cameras[s.left], rotations[s.left]),
                                         withRotation(rig.cameras[s.right], rotations[s.right]), pair.inliers);
            if (!s.trusted || s.after.median <= s.before.median + kWorseTolerancePx) continue;
            bool holds = false;
            for (int c : {s.left, s.right})
                if ((*freeIndex)[c] >= 0) (*held)[c] = holds = true;
            worse = worse || holds;
            if (holds)
                warnings->push_back(formatText("%s: the refinement made its error worse (median %.2f px, was %.2f px)",
                                               pairName(s).c_str(), s.after.median, s.before.median));
        }
        if (!worse) return rotations;
    }
}

}  // namespace

bool refineRig(const Rig& rig, const std::vector<cv::Mat>& images, RigRefinement* out, std::string* error,
               const RefineOptions& options)
{
    if (!checkImages(rig, images, error)) return false;
    const int n = static_cast<int>(rig.cameras.size());
    std::vector<Features> features;
    out->features.clear();
    for (int c = 0; c < n; ++c) {
        features.push_back(detectFeatures(rig.cameras[c], images[c], options.detector));
        out->features.push_back(static_cast<int>(features.back().points.size()));
    }
    out->warnings.clear();
    std::vector<PairData> pairs = matchNeighbours(rig, features, options, &out->warnings);
    if (std::none_of(pairs.begin(), pairs.end(), [](const PairData& p) { return p.summary.trusted; })) {
        *error = formatText("no pair of neighbouring cameras has %d matched features to trust: the images need "
                            "texture where the cameras' views overlap, and the given rotations must be within %g "
                            "degrees",
                            options.minInliers, options.maxInitialErrorDeg);
        return false;
    }

    // A first solution from the features' positions, then the final one from positions aligned
    // on patches through it.
    std::vector<bool> held(n, false);
    std::vector<int> freeIndex;
    alignTrustedPairs(rig, solveRotations(rig, pairs, held, &freeIndex), images, &pairs);
    const std::vector<cv::Matx33d> rotations = solveHoldingBack(rig, &pairs, &held, &freeIndex, &out->warnings);
    out->keptGiven.assign(n, true);
    for (int c = 1; c < n; ++c) out->keptGiven[c] = freeIndex[c] < 0;

    out->rig = rig;
    out->correctionDeg.clear();
    for (int c = 0; c < n; ++c) {
        out->rig.cameras[c].R = rotations[c];
        out->correctionDeg.push_back(angleBetweenDeg(rotations[c], rig.cameras[c].R));
        if (c > 0 && out->keptGiven[c])
            out->warnings.push_back(formatText("camera %d keeps its given rotation: %s", c,
                                               held[c] ? "refining it made its pairs' errors worse"
                                                       : "no trusted pair links it to camera 0"));
    }
    out->pairs.clear();
    for (const PairData& pair : pairs) out->pairs.push_back(pair.summary);
    return true;
}

std::string refinementReport(const RigRefinement& refinement)
{
    std::string text;
    for (size_t c = 0; c < refinement.correctionDeg.size(); ++c) {
        const char* how = c == 0 ? " (anchor, kept as given)" : refinement.keptGiven[c] ? " (kept as given)" : "";
        text += formatText("camera %zu: %d features, rotation corrected by %.3f degrees%s\n", c,
                           refinement.features[c], refinement.correctionDeg[c], how);
    }
    for (const PairRefinement& p : refinement.pairs)
        text += formatText("%s: %d inliers of %d matches; error median %.2f px, 95%% %.2f px before; median %.2f "
                           "px, 95%% %.2f px after%s\n",
                           pairName(p).c_str(), p.inliers, p.matches, p.before.median, p.before.p95, p.after.median,
                           p.after.p95, p.trusted ? "" : " (not trusted, left out)");
    for (const std::string& warning : refinement.warnings) text += "warning: " + warning + "\n";
    return text;
}

}  // namespace zqavs_calib
