// The layout drawn as a picture: one band per camera, its blocks, the blended seams (with their
// paths when known), the column of every boundary and a legend.
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <set>

#include "rig_layout_internal.h"

namespace zqavs_calib {

namespace {

const cv::Scalar kPalette[10] = {{75, 25, 230},  {75, 180, 60},  {25, 200, 230}, {200, 130, 0},  {48, 130, 245},
                                 {180, 30, 145}, {200, 200, 70}, {230, 50, 240}, {60, 200, 150}, {40, 110, 170}};
const cv::Scalar kInk(30, 30, 30);
const cv::Scalar kPaper(255, 255, 255);
constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;
constexpr double kTextScale = 0.45;
constexpr int kBand = 44;
constexpr int kLabelWidth = 96;
constexpr int kRulerRows = 3;
constexpr int kRulerRow = 16;

struct Geometry {
    int left;         // x of panorama column 0
    double scale;     // picture pixels per panorama column
    int bandsTop;     // y of camera 0's band
    int cameras;
    int seamBand;     // height of the seams' band: taller when it shows their paths

    int x(int column) const { return left + static_cast<int>(column * scale + 0.5); }
    int bandTop(int band) const { return bandsTop + band * kBand; }
    int legendTop() const { return bandTop(cameras) + seamBand + 14; }
};

void text(cv::Mat& image, const std::string& s, cv::Point at, const cv::Scalar& colour = kInk)
{
    cv::putText(image, s, at, kFont, kTextScale, colour, 1, cv::LINE_AA);
}

int textWidth(const std::string& s)
{
    int baseline = 0;
    return cv::getTextSize(s, kFont, kTextScale, 1, &baseline).width;
}

cv::Scalar lighter(const cv::Scalar& colour)
{
    return {(colour[0] + 255) / 2, (colour[1] + 255) / 2, (colour[2] + 255) / 2};
}

// Overlap blocks are hatched so that they read apart from a camera's own columns in grey too.
void drawBlock(cv::Mat& image, const cv::Rect& box, const cv::Scalar& colour, bool overlap)
{
    cv::rectangle(image, box, overlap ? lighter(colour) : colour, cv::FILLED);
    if (overlap) {
        cv::Mat roi = image(box & cv::Rect(0, 0, image.cols, image.rows));
        for (int d = -roi.rows; d < roi.cols; d += 6)
            cv::line(roi, {d, roi.rows}, {d + roi.rows, 0}, colour, 1, cv::LINE_AA);
    }
    cv::rectangle(image, box, kInk, 1);
}

void drawCameraBands(cv::Mat& image, const Geometry& g, const PSR_INITPARAMS_T& layout)
{
    for (int c = 0; c < layout.camera_num; ++c) {
        const int top = g.bandTop(c) + 4;
        const int height = kBand - 8;
        text(image, formatText("camera %d", c), {8, top + height / 2 + 5});
        auto box = [&](int start, int width) { return cv::Rect(g.x(start), top, std::max(g.x(start + width) - g.x(start), 1), height); };
        const PSR_NONOVERLAP_BLOCK& nb = layout.nonoverlap_block[c];
        for (int b = 0; b < nb.nonoverlap_num; ++b) {
            const cv::Rect r = box(nb.dst_startx[b], nb.dst_width[b]);
            drawBlock(image, r, kPalette[c % 10], false);
            const std::string label = std::to_string(c);
            if (r.width > textWidth(label) + 4) text(image, label, {r.x + r.width / 2 - textWidth(label) / 2, top + height / 2 + 5}, kPaper);
        }
        const PSR_OVERLAP_BLOCK& ob = layout.overlap_block[c];
        for (int b = 0; b < ob.overlap_num; ++b) drawBlock(image, box(ob.dst_startx[b], ob.dst_width[b]), kPalette[c % 10], true);
    }
}

// A seam's path inside its box, the panorama's rows squeezed into the box's height: the straight
// centre line in grey, the path in white.
void drawPath(cv::Mat& image, const Geometry& g, const cv::Rect& box, const zqavs_synth::Seam& s,
              const std::vector<int>& path)
{
    const double rowScale = static_cast<double>(box.height - 1) / std::max<size_t>(path.size() - 1, 1);
    auto at = [&](int column, size_t row) {
        return cv::Point(g.x(s.startx + column), box.y + static_cast<int>(row * rowScale + 0.5));
    };
    cv::line(image, at(s.width / 2, 0), at(s.width / 2, path.size() - 1), cv::Scalar(130, 130, 130), 1);
    std::vector<cv::Point> points;
    for (size_t row = 0; row < path.size(); ++row) points.push_back(at(path[row], row));
    cv::polylines(image, points, false, kPaper, 2, cv::LINE_AA);
}

void drawSeams(cv::Mat& image, const Geometry& g, const std::vector<zqavs_synth::Seam>& seams,
               const std::vector<std::vector<int>>& paths)
{
    const int top = g.bandTop(g.cameras) + 4;
    text(image, "blended", {8, top + g.seamBand / 2});
    for (size_t i = 0; i < seams.size(); ++i) {
        const zqavs_synth::Seam& s = seams[i];
        const cv::Rect r(g.x(s.startx), top, std::max(g.x(s.startx + s.width) - g.x(s.startx), 1), g.seamBand - 8);
        cv::rectangle(image, r, kInk, cv::FILLED);
        const bool withPath = i < paths.size() && !paths[i].empty();
        if (withPath) drawPath(image, g, r, s, paths[i]);
        const std::string label = formatText("%d|%d", s.left_camera, s.right_camera);
        // In the top left corner when a path runs down the middle.
        const cv::Point labelAt = withPath ? cv::Point(r.x + 4, r.y + 16)
                                           : cv::Point(r.x + r.width / 2 - textWidth(label) / 2, r.y + r.height / 2 + 5);
        text(image, label, labelAt, kPaper);
        for (int x : {r.x, r.x + r.width})
            cv::line(image, {x, g.bandTop(0)}, {x, top}, kInk, 1, cv::LINE_4);
    }
}

// Column numbers of every block boundary above the bands, staggered over a few rows so that
// neighbours do not overwrite each other.
void drawRuler(cv::Mat& image, const Geometry& g, const PSR_INITPARAMS_T& layout)
{
    std::set<int> boundaries{0, layout.bld_width};
    for (int c = 0; c < layout.camera_num; ++c) {
        const PSR_NONOVERLAP_BLOCK& nb = layout.nonoverlap_block[c];
        for (int b = 0; b < nb.nonoverlap_num; ++b) {
            boundaries.insert(nb.dst_startx[b]);
            boundaries.insert(nb.dst_startx[b] + nb.dst_width[b]);
        }
    }
    std::vector<int> rowEnd(kRulerRows, -1000);
    const int bottom = g.bandTop(0) - 4;
    for (int column : boundaries) {
        const std::string label = std::to_string(column);
        const int x = std::min(g.x(column) - textWidth(label) / 2, image.cols - textWidth(label) - 2);
        int row = 0;
        while (row + 1 < kRulerRows && rowEnd[row] + 4 > x) ++row;
        rowEnd[row] = x + textWidth(label);
        const int y = bottom - (kRulerRows - 1 - row) * kRulerRow - 4;
        text(image, label, {x, y});
        cv::line(image, {g.x(column), y + 3}, {g.x(column), g.bandTop(0)}, cv::Scalar(150, 150, 150), 1);
    }
}

void drawLegend(cv::Mat& image, const Geometry& g, bool withPaths)
{
    int x = 8;
    const int top = g.legendTop();
    auto entry = [&](const std::string& label, auto drawSwatch) {
        drawSwatch(cv::Rect(x, top, 28, 16));
        text(image, label, {x + 34, top + 13});
        x += 34 + textWidth(label) + 24;
    };
    entry("camera's own columns", [&](const cv::Rect& r) { drawBlock(image, r, kPalette[0], false); });
    entry("overlap block (seam side)", [&](const cv::Rect& r) { drawBlock(image, r, kPalette[0], true); });
    entry("blended seam A|B (A's last overlap block with B's first)",
          [&](const cv::Rect& r) { cv::rectangle(image, r, kInk, cv::FILLED); });
    text(image, "numbers above: panorama column of each boundary", {8, top + 38});
    if (withPaths)
        text(image, "white in a seam: its path, camera A on the left of it (grey: the straight centre line)",
             {8, top + 58});
}

}  // namespace

cv::Mat drawLayoutOverlay(const PSR_INITPARAMS_T& layout, const std::vector<zqavs_synth::Seam>& blendedSeams,
                          const std::vector<std::vector<int>>& paths, int width)
{
    const bool withPaths = !paths.empty();
    Geometry g;
    g.left = kLabelWidth;
    g.scale = static_cast<double>(width - kLabelWidth - 24) / std::max(layout.bld_width, 1);
    g.bandsTop = 30 + kRulerRows * kRulerRow + 8;
    g.cameras = layout.camera_num;
    g.seamBand = withPaths ? 4 * kBand : kBand;
    cv::Mat image(g.legendTop() + (withPaths ? 70 : 50), width, CV_8UC3, kPaper);
    text(image, formatText("panorama %d x %d, %d cameras, mesh step %d", layout.bld_width, layout.bld_height,
                           layout.camera_num, layout.step_x),
         {8, 20});
    drawRuler(image, g, layout);
    drawCameraBands(image, g, layout);
    drawSeams(image, g, blendedSeams, paths);
    drawLegend(image, g, withPaths);
    return image;
}

}  // namespace zqavs_calib
