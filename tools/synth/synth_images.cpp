// Scenes, camera rendering and BT.601 full-range NV12 conversion.
#include <algorithm>
#include <cmath>
#include <functional>

#include "zqavs_synth.h"

namespace zqavs_synth {

namespace {

// Fills one row of RGB values (0..255, three per pixel, unclamped).
using RowSource = std::function<void(int row, float* rgb)>;

// Pixels of a camera that see nothing of the panorama.
constexpr float kOutsideGrey = 128.0f;
// How far outside the panorama a camera pixel may fall and still be clamped to its edge (the
// bilinear taps of the outermost mesh samples lie there).
constexpr double kEdgeClampPx = 4.0;

uint8_t toByte(double value)
{
    return static_cast<uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
}

// Coverage of a feature at signed distance d (pixels, positive inside): a 2 px wide ramp, so
// that no edge is sharper than resampling can follow.
double coverage(double d)
{
    return std::clamp(d / 2.0 + 0.5, 0.0, 1.0);
}

void mixInto(double* rgb, const double* colour, double amount)
{
    for (int k = 0; k < 3; ++k) rgb[k] += (colour[k] - rgb[k]) * amount;
}

void builtinScenePixel(int x, int y, int width, int height, double* rgb)
{
    static const double palette[6][3] = {
        {220, 60, 50}, {60, 190, 80}, {50, 90, 220}, {230, 210, 60}, {180, 70, 200}, {60, 200, 210},
    };
    static const double light[3] = {245, 240, 230};
    static const double dark[3] = {25, 30, 40};
    // Gradients over the whole panorama.
    double fx = (x + 0.5) / width, fy = (y + 0.5) / height;
    rgb[0] = 50 + 150 * fx;
    rgb[1] = 70 + 100 * fy;
    rgb[2] = 200 - 140 * fx;
    // Colour areas: one rectangle per 384 x (height / 2) cell, inset by 40 px.
    const int cellW = 384, cellH = std::max(height / 2, 1);
    int cx = x / cellW, cy = y / cellH;
    double inX = std::min(x + 0.5 - cx * cellW, (cx + 1) * cellW - x - 0.5) - 40;
    double inY = std::min(y + 0.5 - cy * cellH, (cy + 1) * cellH - y - 0.5) - 40;
    mixInto(rgb, palette[(cx + 2 * cy) % 6], 0.6 * coverage(std::min(inX, inY)));
    // A grid of 3 px lines every 64 px.
    double gx = std::fabs(x % 64 + 0.5 - 32.0), gy = std::fabs(y % 64 + 0.5 - 32.0);
    double line = std::max(coverage(gx - 30.5), coverage(gy - 30.5));
    mixInto(rgb, dark, 0.5 * line);
    // Discs and rings of several sizes on a 192 px lattice.
    static const double radii[4] = {10, 24, 56, 80};
    int lx = x / 192, ly = y / 192;
    double dx = x + 0.5 - (lx * 192 + 96), dy = y + 0.5 - (ly * 192 + 96);
    double dist = std::sqrt(dx * dx + dy * dy);
    double radius = radii[(lx + ly) % 4];
    if ((lx + 3 * ly) % 2 == 0)
        mixInto(rgb, light, 0.8 * coverage(radius - dist));
    else
        mixInto(rgb, dark, 0.7 * coverage(3.0 - std::fabs(dist - radius)));
}

void sampleBilinear(const RgbImage& image, double px, double py, float* out)
{
    px = std::clamp(px, 0.0, image.width - 1.0);
    py = std::clamp(py, 0.0, image.height - 1.0);
    int x0 = std::min(static_cast<int>(px), image.width - 1), y0 = std::min(static_cast<int>(py), image.height - 1);
    int x1 = std::min(x0 + 1, image.width - 1), y1 = std::min(y0 + 1, image.height - 1);
    double ax = px - x0, ay = py - y0;
    const uint8_t* p00 = &image.rgb[(static_cast<size_t>(y0) * image.width + x0) * 3];
    const uint8_t* p01 = &image.rgb[(static_cast<size_t>(y0) * image.width + x1) * 3];
    const uint8_t* p10 = &image.rgb[(static_cast<size_t>(y1) * image.width + x0) * 3];
    const uint8_t* p11 = &image.rgb[(static_cast<size_t>(y1) * image.width + x1) * 3];
    for (int k = 0; k < 3; ++k) {
        double top = p00[k] + (p01[k] - p00[k]) * ax;
        double bottom = p10[k] + (p11[k] - p10[k]) * ax;
        out[k] = static_cast<float>(top + (bottom - top) * ay);
    }
}

Nv12Image encodeNv12(int width, int height, const RowSource& source)
{
    Nv12Image image;
    image.width = width;
    image.height = height;
    image.stride = nv12Stride(width);
    image.data.assign(nv12Bytes(width, height), 0);
    std::vector<float> rgb(static_cast<size_t>(width) * 3);
    std::vector<double> cbSum(static_cast<size_t>(width / 2)), crSum(static_cast<size_t>(width / 2));
    uint8_t* chroma = image.data.data() + static_cast<size_t>(image.stride) * height;
    for (int y = 0; y < height; ++y) {
        source(y, rgb.data());
        uint8_t* luma = image.data.data() + static_cast<size_t>(y) * image.stride;
        if (y % 2 == 0) {
            std::fill(cbSum.begin(), cbSum.end(), 0.0);
            std::fill(crSum.begin(), crSum.end(), 0.0);
        }
        for (int x = 0; x < width; ++x) {
            double r = std::clamp<double>(rgb[3 * x], 0.0, 255.0);
            double g = std::clamp<double>(rgb[3 * x + 1], 0.0, 255.0);
            double b = std::clamp<double>(rgb[3 * x + 2], 0.0, 255.0);
            Yuv yuv = rgbToYuv(r, g, b);
            luma[x] = toByte(yuv.y);
            if (x / 2 < width / 2) {
                cbSum[x / 2] += yuv.cb;
                crSum[x / 2] += yuv.cr;
            }
        }
        if (y % 2 == 1) {
            uint8_t* row = chroma + static_cast<size_t>(y / 2) * image.stride;
            for (int cx = 0; cx < width / 2; ++cx) {
                row[2 * cx] = toByte(cbSum[cx] / 4.0);
                row[2 * cx + 1] = toByte(crSum[cx] / 4.0);
            }
        }
    }
    return image;
}

}  // namespace

Yuv rgbToYuv(double r, double g, double b)
{
    return {0.299 * r + 0.587 * g + 0.114 * b, -0.168736 * r - 0.331264 * g + 0.5 * b + 128.0,
            0.5 * r - 0.418688 * g - 0.081312 * b + 128.0};
}

RgbImage makeBuiltinScene(int width, int height)
{
    RgbImage image;
    image.width = width;
    image.height = height;
    image.rgb.resize(static_cast<size_t>(width) * height * 3);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            double rgb[3];
            builtinScenePixel(x, y, width, height, rgb);
            uint8_t* out = &image.rgb[(static_cast<size_t>(y) * width + x) * 3];
            for (int k = 0; k < 3; ++k) out[k] = toByte(rgb[k]);
        }
    }
    return image;
}

RgbImage resizeRgb(const RgbImage& source, int width, int height)
{
    RgbImage image;
    image.width = width;
    image.height = height;
    image.rgb.resize(static_cast<size_t>(width) * height * 3);
    const double sx = static_cast<double>(source.width) / width, sy = static_cast<double>(source.height) / height;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            float rgb[3];
            sampleBilinear(source, (x + 0.5) * sx - 0.5, (y + 0.5) * sy - 0.5, rgb);
            uint8_t* out = &image.rgb[(static_cast<size_t>(y) * width + x) * 3];
            for (int k = 0; k < 3; ++k) out[k] = toByte(rgb[k]);
        }
    }
    return image;
}

RgbImage makeScene(const RigConfig& rig)
{
    if (rig.scene_image.rgb.empty()) return makeBuiltinScene(rig.bld_width, rig.bld_height);
    return resizeRgb(rig.scene_image, rig.bld_width, rig.bld_height);
}

Nv12Image renderCamera(const Calibration& calib, int camera, const RgbImage& scene)
{
    const RigGeometry& geo = calib.geometry;
    const CameraModel& cam = geo.cameras[camera];
    const int width = calib.rig.src_width;
    const double gain = calib.rig.gains.empty() ? 1.0 : calib.rig.gains[camera];
    double channelGain[3] = {gain, gain, gain};
    for (int k = 0; k < 3 && !calib.rig.casts.empty(); ++k) channelGain[k] *= calib.rig.casts[3 * camera + k];
    // The azimuth of a camera column does not depend on the row: work it out once per column.
    std::vector<double> panoX(static_cast<size_t>(width)), cosAlpha(static_cast<size_t>(width));
    for (int x = 0; x < width; ++x) {
        double alpha = std::atan((x + 0.5 - cam.cx) / cam.focal);
        panoX[x] = ((cam.yaw + alpha) / geo.hfov + 0.5) * geo.bld_width - 0.5;
        cosAlpha[x] = std::cos(alpha);
    }
    auto row = [&](int y, float* rgb) {
        const double height = (y + 0.5 - cam.cy) / cam.focal;
        for (int x = 0; x < width; ++x) {
            double px = panoX[x];
            double py = height * cosAlpha[x] * geo.pano_fy + geo.bld_height / 2.0 - 0.5;
            float* out = rgb + 3 * x;
            if (px < -kEdgeClampPx || px > geo.bld_width - 1 + kEdgeClampPx || py < -kEdgeClampPx ||
                py > geo.bld_height - 1 + kEdgeClampPx) {
                out[0] = out[1] = out[2] = kOutsideGrey;
                continue;
            }
            sampleBilinear(scene, px, py, out);
            for (int k = 0; k < 3; ++k) out[k] = static_cast<float>(out[k] * channelGain[k]);
        }
    };
    return encodeNv12(width, calib.rig.src_height, row);
}

Nv12Image rgbToNv12(const RgbImage& image)
{
    auto row = [&image](int y, float* rgb) {
        const uint8_t* in = &image.rgb[static_cast<size_t>(y) * image.width * 3];
        for (int k = 0; k < image.width * 3; ++k) rgb[k] = in[k];
    };
    return encodeNv12(image.width, image.height, row);
}

RgbImage nv12ToRgb(const Nv12View& image)
{
    RgbImage out;
    out.width = image.width;
    out.height = image.height;
    out.rgb.resize(static_cast<size_t>(image.width) * image.height * 3);
    const int chromaW = image.width / 2, chromaH = image.height / 2;
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            int cx = std::min(x / 2, chromaW - 1), cy = std::min(y / 2, chromaH - 1);
            double luma = image.y(x, y);
            double cb = chromaW > 0 && chromaH > 0 ? image.cb(cx, cy) - 128.0 : 0.0;
            double cr = chromaW > 0 && chromaH > 0 ? image.cr(cx, cy) - 128.0 : 0.0;
            uint8_t* px = &out.rgb[(static_cast<size_t>(y) * image.width + x) * 3];
            px[0] = toByte(luma + 1.402 * cr);
            px[1] = toByte(luma - 0.344136 * cb - 0.714136 * cr);
            px[2] = toByte(luma + 1.772 * cb);
        }
    }
    return out;
}

}  // namespace zqavs_synth
