// Layout of a real rig: column ownership, seam windows and blocks.
//
// Everything is decided on the mesh grid: a "cell" is the step-wide column range between two
// mesh node columns, so every boundary the layout draws lies on a node column.
#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <limits>
#include <numeric>

#include "rig_layout_internal.h"

namespace zqavs_calib {

namespace {

// A node this far inside the image keeps the bilinear taps of the pixels around it on the image.
constexpr double kEdgeMargin = 1.0;
constexpr double kUnseen = -1e30;

int floorMod(int value, int modulus)
{
    return ((value % modulus) + modulus) % modulus;
}

// Per camera and node column: how far inside the image the column's worst node lies (all rows,
// and the middle row alone).
struct NodeMargins {
    std::vector<std::vector<double>> all;
    std::vector<std::vector<double>> middle;
};

double marginInside(const CameraSpec& camera, const cv::Point2d& p, uint8_t visible)
{
    if (!visible) return kUnseen;
    return std::min({p.x, p.y, camera.image_width - 1 - p.x, camera.image_height - 1 - p.y});
}

NodeMargins measureNodeMargins(const Rig& rig)
{
    const PanoramaSpec& pano = rig.panorama;
    const int columns = pano.width / pano.step + 1;
    const int rows = pano.height / pano.step + 1;
    NodeMargins margins;
    for (const CameraSpec& camera : rig.cameras) {
        std::vector<double> all(columns), middle(columns);
        for (int k = 0; k < columns; ++k) {
            std::vector<cv::Vec3d> rays;
            for (int r = 0; r < rows; ++r) rays.push_back(panoramaRay(pano, k * pano.step - 0.5, r * pano.step - 0.5));
            std::vector<cv::Point2d> pixels;
            std::vector<uint8_t> visible;
            projectDirections(camera, rays, &pixels, &visible);
            all[k] = std::numeric_limits<double>::max();
            for (int r = 0; r < rows; ++r) all[k] = std::min(all[k], marginInside(camera, pixels[r], visible[r]));
            middle[k] = marginInside(camera, pixels[rows / 2], visible[rows / 2]);
        }
        margins.all.push_back(std::move(all));
        margins.middle.push_back(std::move(middle));
    }
    return margins;
}

// A camera's margin over cell j: the worse of its two node columns.
double cellMargin(const std::vector<double>& nodeMargins, int cell, int cells)
{
    const int j = floorMod(cell, cells);
    return std::min(nodeMargins[j], nodeMargins[j + 1]);
}

bool sees(const NodeMargins& m, int camera, int cell, int cells)
{
    return cellMargin(m.all[camera], cell, cells) >= kEdgeMargin;
}

// A camera's columns as one run of cells [start, end); on a 360 degree panorama the run that
// holds the edge starts below 0.
struct Run {
    int camera;
    int start;
    int end;
};

std::string uncoveredMessage(const Rig& rig, const NodeMargins& m, int first, int last)
{
    const PanoramaSpec& pano = rig.panorama;
    const int cells = pano.width / pano.step;
    // When some camera sees the middle row of every such column, the rows are what is missing.
    bool middleSeen = true;
    for (int j = first; j <= last; ++j) {
        bool seen = false;
        for (size_t c = 0; c < rig.cameras.size(); ++c) seen = seen || cellMargin(m.middle[c], j, cells) >= kEdgeMargin;
        middleSeen = middleSeen && seen;
    }
    if (middleSeen)
        return formatText("panorama columns %d..%d: the top or bottom rows lie outside every camera's image: "
                      "lower vfov_deg (now %g)",
                      first * pano.step, (last + 1) * pano.step - 1, pano.vfov_deg);
    return formatText("panorama columns %d..%d are seen by no camera: lower hfov_deg (now %g) or turn the cameras "
                  "so that their views meet",
                  first * pano.step, (last + 1) * pano.step - 1, pano.hfov_deg);
}

bool ownCells(const Rig& rig, const NodeMargins& m, std::vector<int>* owners, std::string* error)
{
    const int cells = rig.panorama.width / rig.panorama.step;
    owners->assign(cells, -1);
    for (int j = 0; j < cells; ++j) {
        double best = kEdgeMargin;
        for (size_t c = 0; c < rig.cameras.size(); ++c) {
            const double margin = cellMargin(m.all[c], j, cells);
            if (margin >= best) {
                best = margin;
                (*owners)[j] = static_cast<int>(c);
            }
        }
    }
    for (int j = 0; j < cells; ++j) {
        if ((*owners)[j] >= 0) continue;
        int last = j;
        while (last + 1 < cells && (*owners)[last + 1] < 0) ++last;
        *error = uncoveredMessage(rig, m, j, last);
        return false;
    }
    return true;
}

std::vector<Run> ownerRuns(const std::vector<int>& owners, bool wraps)
{
    std::vector<Run> runs;
    for (int j = 0; j < static_cast<int>(owners.size()); ++j) {
        if (runs.empty() || runs.back().camera != owners[j])
            runs.push_back({owners[j], j, j + 1});
        else
            runs.back().end = j + 1;
    }
    if (wraps && runs.size() > 1 && runs.front().camera == runs.back().camera) {
        runs.front().start = runs.back().start - static_cast<int>(owners.size());
        runs.pop_back();
    }
    return runs;
}

bool checkOrder(const std::vector<Run>& runs, int cameras, bool wraps, const PanoramaSpec& pano, std::string* error)
{
    const int pairs = wraps && runs.size() > 1 ? static_cast<int>(runs.size()) : static_cast<int>(runs.size()) - 1;
    for (int i = 0; i < pairs; ++i) {
        const Run& a = runs[i];
        const Run& b = runs[(i + 1) % runs.size()];
        if (b.camera != (a.camera + 1) % cameras) {
            *error = formatText("cameras %d and %d are neighbours in the panorama (at column %d) but not in the rig "
                            "file: list the cameras from left to right",
                            a.camera, b.camera, floorMod(a.end * pano.step, pano.width));
            return false;
        }
    }
    std::vector<int> count(cameras, 0);
    for (const Run& run : runs) count[run.camera]++;
    for (int c = 0; c < cameras; ++c) {
        if (count[c] == 1) continue;
        *error = count[c] == 0 ? formatText("camera %d sees no column better than the other cameras: turn it or "
                                        "remove it from the rig",
                                        c)
                               : formatText("camera %d owns %d separate parts of the panorama: check its R", c,
                                        count[c]);
        return false;
    }
    return true;
}

// Narrowest seam (in columns): whole mesh steps, and every pyramid level's rows a whole number
// of 4-byte words (narrow alpha levels are uploaded with the default unpack alignment).
int seamUnit(const PanoramaSpec& pano)
{
    return std::lcm(pano.step, 4 << pano.bands);
}

// Start cell of an n-cell window inside [lo, hi) nearest to the centre that does not cross the
// panorama's edge; `hi` - n < lo when there is none.
int placeWindow(int lo, int hi, int n, int cells, bool wraps)
{
    const int ideal = static_cast<int>(std::lround((lo + hi - n) / 2.0));
    int bestStart = lo - 1;
    for (int s = lo; s + n <= hi; ++s) {
        const bool crossesEdge = wraps ? floorMod(s, cells) + n > cells : (s < 0 || s + n > cells);
        if (!crossesEdge && (bestStart < lo || std::abs(s - ideal) < std::abs(bestStart - ideal))) bestStart = s;
    }
    return bestStart;
}

// Seam between runs a and b = a's right-hand neighbour; b's cells are taken in a's frame.
bool placeSeam(const Rig& rig, const NodeMargins& m, const Run& a, const Run& b, RigSeam* seam,
               std::vector<std::string>* warnings, std::string* error)
{
    const PanoramaSpec& pano = rig.panorama;
    const int cells = pano.width / pano.step;
    const bool wraps = pano.hfov_deg >= 360.0;
    const int boundary = a.end;
    const int bLength = b.end - b.start;
    // A seam takes less than half of either run, so that each camera keeps a column of its own
    // between its two seams.
    const int aLength = a.end - a.start;
    int lo = boundary, hi = boundary;
    while (lo - 1 >= a.end - (aLength - 1) / 2 && sees(m, b.camera, lo - 1, cells)) --lo;
    while (hi + 1 <= boundary + (bLength - 1) / 2 && sees(m, a.camera, hi, cells)) ++hi;

    const int unit = seamUnit(pano) / pano.step;
    const int wanted = pano.seam_width / pano.step / unit * unit;
    int n = std::min(wanted, (hi - lo) / unit * unit);
    int start = lo - 1;
    for (; n >= unit; n -= unit) {
        start = placeWindow(lo, hi, n, cells, wraps);
        if (start >= lo) break;
    }
    if (n < unit) {
        *error = formatText("cameras %d and %d share only %d columns of view (columns %d..%d): a seam needs %d; turn "
                        "them to overlap more or lower bands",
                        a.camera, b.camera, (hi - lo) * pano.step, floorMod(lo * pano.step, pano.width),
                        floorMod(hi * pano.step - 1, pano.width), seamUnit(pano));
        return false;
    }
    if (n * pano.step < pano.seam_width)
        warnings->push_back(formatText("seam %d-%d narrowed to %d columns: the cameras share %d columns there and "
                                   "seams come in multiples of %d",
                                   a.camera, b.camera, n * pano.step, (hi - lo) * pano.step, seamUnit(pano)));
    seam->window.left_camera = a.camera;
    seam->window.right_camera = b.camera;
    seam->window.startx = floorMod(start, cells) * pano.step;
    seam->window.width = n * pano.step;
    seam->view_start = lo * pano.step;
    seam->view_end = hi * pano.step;
    // Where the window starts in a's frame, for the blocks.
    seam->frame_start = start * pano.step;
    return true;
}

zqavs_calib_core::MeshGrid meshGrid(const PanoramaSpec& pano)
{
    return {pano.step, pano.step, pano.height};
}

void addNonoverlap(PSR_NONOVERLAP_BLOCK* block, int startx, int width, const PanoramaSpec& pano)
{
    zqavs_calib_core::appendNonoverlapBlock(block, startx, width, meshGrid(pano));
}

void addOverlap(PSR_OVERLAP_BLOCK* block, const zqavs_synth::Seam& window, const PanoramaSpec& pano)
{
    zqavs_calib_core::appendOverlapBlock(block, window.startx, window.width, pano.bands, meshGrid(pano));
}

// Columns [first, last) of the panorama, unwrapped, as non-overlap blocks: two when they run
// over the edge, the left one first.
void addColumns(PSR_NONOVERLAP_BLOCK* block, int first, int last, const PanoramaSpec& pano)
{
    const int start = floorMod(first, pano.width);
    const int width = last - first;
    if (start + width <= pano.width) {
        addNonoverlap(block, start, width, pano);
        return;
    }
    addNonoverlap(block, 0, start + width - pano.width, pano);
    addNonoverlap(block, start, pano.width - start, pano);
}

PSR_INITPARAMS_T emptyLayout(const Rig& rig)
{
    const PanoramaSpec& pano = rig.panorama;
    const CameraSpec& first = rig.cameras[0];
    return zqavs_calib_core::emptyLayout({static_cast<int>(rig.cameras.size()), first.image_width,
                                          first.image_height, pano.width, pano.height, pano.step, pano.step});
}

// Blocks of every camera: its own columns between its seams, then its overlap blocks, the seam
// with its left-hand neighbour first (the blend pairs a camera's last overlap block with its
// right-hand neighbour's first).
bool buildBlocks(const Rig& rig, const std::vector<Run>& runs, const std::vector<RigSeam>& seamsByRun,
                 bool wraps, PSR_INITPARAMS_T* layout, std::string* error)
{
    const PanoramaSpec& pano = rig.panorama;
    const int count = static_cast<int>(runs.size());
    const int width = pano.width;
    for (int i = 0; i < count; ++i) {
        const Run& run = runs[i];
        const bool hasLeft = wraps ? count > 1 : i > 0;
        const bool hasRight = wraps ? count > 1 : i + 1 < count;
        const RigSeam* left = hasLeft ? &seamsByRun[(i + count - 1) % count] : nullptr;
        const RigSeam* right = hasRight ? &seamsByRun[i] : nullptr;
        // The left seam was placed in the previous run's frame, which is one turn ahead for the
        // first run.
        const int leftShift = (wraps && i == 0) ? width : 0;
        const int first = left ? left->frame_start + left->window.width - leftShift : run.start * pano.step;
        const int last = right ? right->frame_start : run.end * pano.step;
        if (last - first < pano.step) {
            *error = formatText("camera %d keeps no column of its own between its seams: lower seam_width (now %d)",
                            run.camera, pano.seam_width);
            return false;
        }
        addColumns(&layout->nonoverlap_block[run.camera], first, last, pano);
        if (left) addOverlap(&layout->overlap_block[run.camera], left->window, pano);
        if (right) addOverlap(&layout->overlap_block[run.camera], right->window, pano);
        layout->image_block_num[run.camera] =
            layout->nonoverlap_block[run.camera].nonoverlap_num + layout->overlap_block[run.camera].overlap_num;
    }
    return true;
}

std::string checkGrid(const PanoramaSpec& pano)
{
    if (pano.step < 1 || pano.width % pano.step || pano.height % pano.step)
        return formatText("panorama width %d and height %d must be multiples of step %d", pano.width, pano.height,
                      pano.step);
    if (pano.seam_width < seamUnit(pano))
        return formatText("seam_width %d is below %d, the narrowest seam that step %d and %d bands allow",
                      pano.seam_width, seamUnit(pano), pano.step, pano.bands);
    return std::string();
}

}  // namespace

std::string formatText(const char* pattern, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, pattern);
    vsnprintf(buffer, sizeof buffer, pattern, args);
    va_end(args);
    return buffer;
}

bool layoutRig(const Rig& rig, PSR_INITPARAMS_T* layout, std::vector<RigSeam>* seams,
               std::vector<std::string>* warnings, std::string* error)
{
    if (rig.cameras.empty()) {
        *error = "the rig has no camera";
        return false;
    }
    *error = checkGrid(rig.panorama);
    if (!error->empty()) return false;
    const bool wraps = rig.panorama.hfov_deg >= 360.0;
    const NodeMargins margins = measureNodeMargins(rig);
    std::vector<int> owners;
    if (!ownCells(rig, margins, &owners, error)) return false;
    const std::vector<Run> runs = ownerRuns(owners, wraps);
    if (!checkOrder(runs, static_cast<int>(rig.cameras.size()), wraps, rig.panorama, error)) return false;

    const int count = static_cast<int>(runs.size());
    const int pairs = wraps && count > 1 ? count : count - 1;
    std::vector<RigSeam> seamsByRun(std::max(pairs, 0));
    for (int i = 0; i < pairs; ++i) {
        Run next = runs[(i + 1) % count];
        if (next.start < runs[i].start) {   // the run after the last: one turn ahead
            next.start += static_cast<int>(owners.size());
            next.end += static_cast<int>(owners.size());
        }
        if (!placeSeam(rig, margins, runs[i], next, &seamsByRun[i], warnings, error)) return false;
    }
    *layout = emptyLayout(rig);
    if (!buildBlocks(rig, runs, seamsByRun, wraps, layout, error)) return false;
    *seams = seamsByRun;
    std::sort(seams->begin(), seams->end(),
              [](const RigSeam& x, const RigSeam& y) { return x.window.left_camera < y.window.left_camera; });
    return true;
}

}  // namespace zqavs_calib
