// `zqavs check`: a linter for calibration directories. It reads the parameter file with the
// library's own grammar and reports every problem it finds, not just the first.
#ifndef ZQAVS_CALIB_CHECK_H
#define ZQAVS_CALIB_CHECK_H

#include <string>
#include <vector>

namespace zqavs {

struct Finding {
    enum Severity { Error, Warning };
    Severity severity;
    std::string file;   // path of the file at fault
    int line;           // 1-based line in that file, 0 when not about a line
    std::string message;
};

struct LintBlock {
    bool overlap = false;
    int dst_startx = 0, dst_width = 0, mesh_width = 0, mesh_height = 0;
    int band_num = 0, alpha_width = 0, alpha_height = 0;  // overlap blocks only
};

struct LintCamera {
    int headerLine = 0;
    int blockCount = 0;  // the header's value
    int nonoverlapNum = 0;
    int overlapNum = 0;
    std::vector<LintBlock> blocks;  // non-overlap blocks, then overlap blocks
};

struct LintLayout {
    int src_width = 0, src_height = 0, bld_width = 0, bld_height = 0, step_x = 0, step_y = 0;
    int globalSections = 0;
    std::vector<LintCamera> cameras;
};

// Whether camera c's seam with its right-hand neighbour is blended, and why.
struct SeamPlan {
    int camera = 0;
    int neighbour = 0;
    bool blended = false;
    int neighbourBlock = -1;  // overlap block of the neighbour whose geometry the seam takes
    int startx = 0, width = 0, height = 0, levels = 0;
    std::string reason;
};

struct CheckReport {
    LintLayout layout;
    std::vector<Finding> findings;
    std::vector<SeamPlan> plan;
    int count(Finding::Severity severity) const;
};

// Reads `dir` (with or without a trailing '/'). `cameras` > 0 checks that many camera sections,
// as a context's numView would; 0 takes every section of the file.
CheckReport checkCalibration(const std::string& dir, int cameras = 0);

// The blend plan of a layout, with the reason for every camera's decision.
std::vector<SeamPlan> planSeams(const LintLayout& layout);

// Alpha elements of a seam W x H with `levels` pyramid levels, finest first.
long alphaElementCount(int width, int height, int levels);

// Draws the layout (one band per camera, blocks, seams) as an RGB image `width` wide.
std::vector<unsigned char> drawLayoutOverlay(const LintLayout& layout, const std::vector<SeamPlan>& plan,
                                             int* height);

}  // namespace zqavs

#endif  // ZQAVS_CALIB_CHECK_H
