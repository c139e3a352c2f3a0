// The rig file: reading, checking and writing it back.
#include <nlohmann/json.hpp>
#include <opencv2/core/persistence.hpp>

#include <cmath>
#include <fstream>
#include <sstream>

#include "rig.h"

namespace zqavs_calib {

namespace {

using nlohmann::json;

// The library's limits on what a rig can become (see the synthetic generator's own checks).
constexpr int kMaxCameras = 10;
constexpr int kMaxImageSide = 16384;
constexpr int kMaxBands = 8;
constexpr double kRotationTolerance = 1e-3;

// A problem with one field of the file; `field` is its path, e.g. "cameras[2].D".
struct FieldError {
    std::string field;
    std::string message;
};

[[noreturn]] void fail(const std::string& field, const std::string& message)
{
    throw FieldError{field, message};
}

std::string join(const std::string& parent, const std::string& key)
{
    return parent.empty() ? key : parent + "." + key;
}

void rejectUnknownKeys(const json& object, const std::string& path, std::initializer_list<const char*> known)
{
    for (auto it = object.begin(); it != object.end(); ++it) {
        bool found = false;
        for (const char* key : known) found = found || it.key() == key;
        if (!found) fail(join(path, it.key()), "unknown key");
    }
}

const json& member(const json& object, const std::string& key, const std::string& path)
{
    if (!object.contains(key)) fail(join(path, key), "missing");
    return object[key];
}

double number(const json& value, const std::string& field)
{
    if (!value.is_number()) fail(field, "expected a number, got " + value.dump());
    const double x = value.get<double>();
    if (!std::isfinite(x)) fail(field, "expected a finite number");
    return x;
}

int integer(const json& value, const std::string& field)
{
    const double x = number(value, field);
    if (x != std::floor(x) || std::fabs(x) > 1e9) fail(field, "expected an integer, got " + value.dump());
    return static_cast<int>(x);
}

double numberOr(const json& object, const std::string& key, const std::string& path, double fallback)
{
    return object.contains(key) ? number(object[key], join(path, key)) : fallback;
}

int integerOr(const json& object, const std::string& key, const std::string& path, int fallback)
{
    return object.contains(key) ? integer(object[key], join(path, key)) : fallback;
}

std::string text(const json& value, const std::string& field)
{
    if (!value.is_string()) fail(field, "expected a string, got " + value.dump());
    return value.get<std::string>();
}

std::vector<double> numbers(const json& value, const std::string& field)
{
    if (!value.is_array()) fail(field, "expected an array of numbers, got " + value.dump());
    std::vector<double> out;
    for (size_t i = 0; i < value.size(); ++i) out.push_back(number(value[i], field + "[" + std::to_string(i) + "]"));
    return out;
}

cv::Matx33d matrix3(const json& value, const std::string& field)
{
    const std::vector<double> v = numbers(value, field);
    if (v.size() != 9) fail(field, "expected 9 numbers (3 x 3, row-major), got " + std::to_string(v.size()));
    return cv::Matx33d(v.data());
}

// ---- checks ---------------------------------------------------------------------------------

void checkSide(int value, const std::string& field)
{
    if (value < 2 || value % 2) fail(field, "must be positive and even (NV12), got " + std::to_string(value));
    if (value >= kMaxImageSide) fail(field, "must be below " + std::to_string(kMaxImageSide));
}

void checkIntrinsicMatrix(const cv::Matx33d& K, const std::string& field)
{
    // OpenCV's pinhole projection ignores a skew term, so a nonzero one would be silently lost.
    const bool shaped = K(0, 1) == 0.0 && K(1, 0) == 0.0 && K(2, 0) == 0.0 && K(2, 1) == 0.0 && K(2, 2) == 1.0;
    if (!shaped || !(K(0, 0) > 0.0) || !(K(1, 1) > 0.0))
        fail(field, "expected [fx, 0, cx, 0, fy, cy, 0, 0, 1] with fx, fy > 0");
}

void checkDistortion(LensModel model, const std::vector<double>& D, const std::string& field)
{
    const size_t n = D.size();
    if (model == LensModel::Fisheye && n != 4)
        fail(field, "a fisheye model takes 4 coefficients, got " + std::to_string(n));
    if (model == LensModel::Pinhole && n != 4 && n != 5 && n != 8)
        fail(field, "a pinhole model takes 4, 5 or 8 coefficients, got " + std::to_string(n));
}

void checkRotation(const cv::Matx33d& R, const std::string& field)
{
    const double det = cv::determinant(R);
    const double offOrthonormal = cv::norm(R * R.t() - cv::Matx33d::eye(), cv::NORM_INF);
    if (std::fabs(det - 1.0) > kRotationTolerance || offOrthonormal > kRotationTolerance) {
        char detail[96];
        snprintf(detail, sizeof detail, "not a rotation (determinant %.3f, R R^T - I up to %.3g)", det, offOrthonormal);
        fail(field, detail);
    }
}

void checkPanorama(const PanoramaSpec& p)
{
    if (!(p.hfov_deg > 0.0 && p.hfov_deg <= 360.0)) fail("panorama.hfov_deg", "must be above 0 and at most 360");
    if (!(p.vfov_deg > 0.0 && p.vfov_deg < 180.0)) fail("panorama.vfov_deg", "must be above 0 and below 180");
    checkSide(p.width, "panorama.width");
    checkSide(p.height, "panorama.height");
    if (p.step < 1) fail("panorama.step", "must be positive");
    if (p.width % p.step || p.height % p.step)
        fail("panorama.step", "the panorama's width and height must be multiples of it (" +
                                  std::to_string(p.width) + "x" + std::to_string(p.height) + ", step " +
                                  std::to_string(p.step) + ")");
    if (p.bands < 0 || p.bands > kMaxBands) fail("panorama.bands", "must be 0.." + std::to_string(kMaxBands));
    if ((p.height >> p.bands) < 1) fail("panorama.bands", "the panorama is too low for bands + 1 pyramid levels");
    if (p.seam_width < p.step || p.seam_width % p.step || p.seam_width > p.width)
        fail("panorama.seam_width", "must be a positive multiple of step, at most the panorama's width");
    if ((p.seam_width >> p.bands) < 1)
        fail("panorama.seam_width", "too narrow for bands + 1 pyramid levels (at least 2^bands)");
}

// ---- reading ----------------------------------------------------------------------------------

PanoramaSpec readPanorama(const json& root)
{
    const std::string path = "panorama";
    const json& p = member(root, path, "");
    if (!p.is_object()) fail(path, "expected an object");
    rejectUnknownKeys(p, path, {"projection", "width", "height", "hfov_deg", "vfov_deg", "yaw_deg", "step",
                                "seam_width", "bands", "alpha"});
    PanoramaSpec pano;
    const std::string projection = text(member(p, "projection", path), "panorama.projection");
    if (projection == "equirectangular")
        pano.projection = Projection::Equirectangular;
    else if (projection == "cylindrical")
        pano.projection = Projection::Cylindrical;
    else
        fail("panorama.projection", "unknown projection '" + projection + "' (equirectangular or cylindrical)");
    pano.width = integer(member(p, "width", path), "panorama.width");
    pano.height = integer(member(p, "height", path), "panorama.height");
    pano.hfov_deg = number(member(p, "hfov_deg", path), "panorama.hfov_deg");
    pano.vfov_deg = number(member(p, "vfov_deg", path), "panorama.vfov_deg");
    pano.yaw_deg = numberOr(p, "yaw_deg", path, pano.yaw_deg);
    pano.step = integerOr(p, "step", path, pano.step);
    pano.seam_width = integerOr(p, "seam_width", path, pano.seam_width);
    pano.bands = integerOr(p, "bands", path, pano.bands);
    if (p.contains("alpha")) {
        const std::string alpha = text(p["alpha"], "panorama.alpha");
        if (alpha != "u8" && alpha != "float") fail("panorama.alpha", "must be \"u8\" or \"float\", got '" + alpha + "'");
        pano.alpha = alpha == "u8" ? zqavs_synth::AlphaType::U8 : zqavs_synth::AlphaType::Float;
    }
    checkPanorama(pano);
    return pano;
}

std::string resolvePath(const std::string& baseDir, const std::string& path)
{
    if (path.empty() || path[0] == '/' || baseDir.empty()) return path;
    return baseDir + "/" + path;
}

// An OpenCV calibration file as OpenCV's calibration sample writes it.
void readIntrinsicsFile(const std::string& file, const std::string& field, CameraSpec* camera)
{
    cv::FileStorage fs;
    try {
        fs.open(file, cv::FileStorage::READ);
    } catch (const cv::Exception&) {
        fs.release();
    }
    if (!fs.isOpened()) fail(field, "cannot read '" + file + "' as an OpenCV calibration file");
    auto required = [&](const char* key) {
        cv::FileNode node = fs[key];
        if (node.empty()) fail(field, file + ": no " + key);
        return node;
    };
    cv::Mat K, D;
    try {
        required("camera_matrix") >> K;
        required("distortion_coefficients") >> D;
    } catch (const cv::Exception&) {
        fail(field, file + ": camera_matrix and distortion_coefficients must be matrices");
    }
    if (K.rows != 3 || K.cols != 3) fail(field, file + ": camera_matrix must be 3 x 3");
    K.convertTo(K, CV_64F);
    D.convertTo(D, CV_64F);
    camera->K = cv::Matx33d(K.ptr<double>());
    camera->D.assign(D.ptr<double>(), D.ptr<double>() + D.total());
    const cv::FileNode width = required("image_width");
    const cv::FileNode height = required("image_height");
    if (!width.isInt() || !height.isInt()) fail(field, file + ": image_width and image_height must be integers");
    camera->image_width = static_cast<int>(width);
    camera->image_height = static_cast<int>(height);
    // A file that names its model ("model": pinhole / fisheye, or OpenCV's sample's flag
    // "fisheye_model") must agree with the rig's.
    std::string named;
    if (fs["model"].isString()) named = static_cast<std::string>(fs["model"]);
    if (fs["fisheye_model"].isInt()) named = static_cast<int>(fs["fisheye_model"]) ? "fisheye" : "pinhole";
    const std::string expected = camera->model == LensModel::Fisheye ? "fisheye" : "pinhole";
    if (!named.empty() && named != expected)
        fail(field, file + ": a " + named + " model, but the rig says " + expected);
}

CameraSpec readCamera(const json& c, const std::string& path, const std::string& baseDir)
{
    if (!c.is_object()) fail(path, "expected an object");
    rejectUnknownKeys(c, path, {"model", "intrinsics", "image_width", "image_height", "K", "D", "R"});
    CameraSpec camera;
    const std::string model = text(member(c, "model", path), join(path, "model"));
    if (model == "pinhole")
        camera.model = LensModel::Pinhole;
    else if (model == "fisheye")
        camera.model = LensModel::Fisheye;
    else
        fail(join(path, "model"), "unknown model '" + model + "' (pinhole or fisheye)");

    if (c.contains("intrinsics")) {
        for (const char* key : {"K", "D", "image_width", "image_height"})
            if (c.contains(key)) fail(join(path, key), "give either intrinsics or K, D and the image size, not both");
        camera.intrinsics = text(c["intrinsics"], join(path, "intrinsics"));
        readIntrinsicsFile(resolvePath(baseDir, camera.intrinsics), join(path, "intrinsics"), &camera);
    } else {
        camera.image_width = integer(member(c, "image_width", path), join(path, "image_width"));
        camera.image_height = integer(member(c, "image_height", path), join(path, "image_height"));
        camera.K = matrix3(member(c, "K", path), join(path, "K"));
        camera.D = numbers(member(c, "D", path), join(path, "D"));
    }
    // Values read from an intrinsics file are blamed on that file.
    auto source = [&](const char* key) { return join(path, camera.intrinsics.empty() ? key : "intrinsics"); };
    checkSide(camera.image_width, source("image_width"));
    checkSide(camera.image_height, source("image_height"));
    checkIntrinsicMatrix(camera.K, source("K"));
    checkDistortion(camera.model, camera.D, source("D"));
    camera.R = matrix3(member(c, "R", path), join(path, "R"));
    checkRotation(camera.R, join(path, "R"));
    return camera;
}

std::vector<CameraSpec> readCameras(const json& root, const std::string& baseDir)
{
    const json& list = member(root, "cameras", "");
    if (!list.is_array() || list.empty() || list.size() > static_cast<size_t>(kMaxCameras))
        fail("cameras", "expected an array of 1.." + std::to_string(kMaxCameras) + " cameras");
    std::vector<CameraSpec> cameras;
    for (size_t i = 0; i < list.size(); ++i) {
        const std::string path = "cameras[" + std::to_string(i) + "]";
        cameras.push_back(readCamera(list[i], path, baseDir));
        const CameraSpec& first = cameras.front();
        const CameraSpec& last = cameras.back();
        if (last.image_width != first.image_width || last.image_height != first.image_height)
            fail(path, "image size " + std::to_string(last.image_width) + "x" + std::to_string(last.image_height) +
                           " differs from camera 0's " + std::to_string(first.image_width) + "x" +
                           std::to_string(first.image_height) + " (the library takes one source size)");
    }
    return cameras;
}

Rig readRig(const std::string& text, const std::string& baseDir)
{
    json root;
    try {
        root = json::parse(text);
    } catch (const json::exception& e) {  // a syntax error, or a number past a double's range
        fail("", std::string("not valid JSON: ") + e.what());
    }
    if (!root.is_object()) fail("", "expected a JSON object with panorama and cameras");
    rejectUnknownKeys(root, "", {"panorama", "cameras"});
    Rig rig;
    rig.panorama = readPanorama(root);
    rig.cameras = readCameras(root, baseDir);
    return rig;
}

std::vector<double> rowMajor(const cv::Matx33d& m)
{
    return std::vector<double>(m.val, m.val + 9);
}

}  // namespace

bool parseRig(const std::string& text, const std::string& baseDir, const std::string& name, Rig* rig,
              std::string* error)
{
    try {
        *rig = readRig(text, baseDir);
        return true;
    } catch (const FieldError& e) {
        *error = name + ": " + (e.field.empty() ? "" : e.field + ": ") + e.message;
        return false;
    }
}

bool loadRig(const std::string& path, Rig* rig, std::string* error)
{
    std::ifstream in(path);
    if (!in) {
        *error = path + ": cannot read the rig file";
        return false;
    }
    std::stringstream text;
    text << in.rdbuf();
    const size_t slash = path.find_last_of('/');
    const std::string baseDir = slash == std::string::npos ? std::string() : path.substr(0, slash);
    return parseRig(text.str(), baseDir, path, rig, error);
}

std::string rigToJson(const Rig& rig)
{
    const PanoramaSpec& p = rig.panorama;
    nlohmann::ordered_json root;
    root["panorama"] = {
        {"projection", p.projection == Projection::Equirectangular ? "equirectangular" : "cylindrical"},
        {"width", p.width},
        {"height", p.height},
        {"hfov_deg", p.hfov_deg},
        {"vfov_deg", p.vfov_deg},
        {"yaw_deg", p.yaw_deg},
        {"step", p.step},
        {"seam_width", p.seam_width},
        {"bands", p.bands},
        {"alpha", p.alpha == zqavs_synth::AlphaType::U8 ? "u8" : "float"},
    };
    root["cameras"] = nlohmann::ordered_json::array();
    for (const CameraSpec& c : rig.cameras) {
        nlohmann::ordered_json camera;
        camera["model"] = c.model == LensModel::Fisheye ? "fisheye" : "pinhole";
        camera["image_width"] = c.image_width;
        camera["image_height"] = c.image_height;
        camera["K"] = rowMajor(c.K);
        camera["D"] = c.D;
        camera["R"] = rowMajor(c.R);
        root["cameras"].push_back(camera);
    }
    return root.dump(2) + "\n";
}

}  // namespace zqavs_calib
