#include "calib_check.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

namespace zqavs {
namespace {

const char* const kParamFileName = "zq_ps_gpu_mesh_params.txt";
constexpr int kMaxBlocksPerCamera = 10;

std::string withSlash(const std::string& dir)
{
    return (!dir.empty() && dir.back() == '/') ? dir : dir + "/";
}

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...)
{
    char text[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    return text;
}

// The parameter file as the library reads it: lines split at single blanks, the value is the
// second token through atoi. Keeps line numbers so that every finding can point at its line.
class ParamReader {
public:
    ParamReader(const std::string& path, CheckReport& report) : path_(path), report_(report) {}

    bool read()
    {
        std::ifstream in(path_);
        if (!in) {
            error(0, "cannot open the parameter file");
            return false;
        }
        std::stringstream all;
        all << in.rdbuf();
        text_ = all.str();
        splitLines();
        while (next_ < lines_.size()) readSection();
        return true;
    }

private:
    struct Line {
        std::string text;
        bool terminated;  // followed by a line break
    };

    void splitLines()
    {
        size_t start = 0;
        while (start < text_.size()) {
            size_t end = text_.find('\n', start);
            if (end == std::string::npos) {
                lines_.push_back({text_.substr(start), false});
                break;
            }
            lines_.push_back({text_.substr(start, end - start), true});
            start = end + 1;
        }
    }

    static std::vector<std::string> tokens(const std::string& text)
    {
        std::vector<std::string> out;
        size_t start = 0;
        for (;;) {
            size_t blank = text.find(' ', start);
            out.push_back(text.substr(start, blank == std::string::npos ? std::string::npos : blank - start));
            if (blank == std::string::npos) break;
            start = blank + 1;
        }
        return out;
    }

    void error(int line, const std::string& message)
    {
        report_.findings.push_back({Finding::Error, path_, line, message});
    }
    void warning(int line, const std::string& message)
    {
        report_.findings.push_back({Finding::Warning, path_, line, message});
    }

    // One data line of a section: the library reads it whatever it holds.
    int dataValue(const char* what, int cameraIndex)
    {
        if (next_ >= lines_.size()) {
            error(static_cast<int>(lines_.size()),
                  format("the file ends inside %s: '%s' reads as 0", sectionName(cameraIndex).c_str(), what));
            ++next_;
            return 0;
        }
        const int lineNo = static_cast<int>(next_) + 1;
        const std::string& text = lines_[next_++].text;
        if (!text.empty() && text[0] == '#')
            error(lineNo, format("comment line inside %s is read as the value of '%s'",
                                 sectionName(cameraIndex).c_str(), what));
        std::vector<std::string> parts = tokens(text);
        if (parts.size() < 2 || parts[1].empty() || parts[1].find_first_of("0123456789") != 0) {
            if (!(parts.size() >= 2 && (parts[1][0] == '-' || parts[1][0] == '+')))
                warning(lineNo, format("'%s' has no number after a single blank: it reads as 0", what));
        }
        return parts.size() >= 2 ? atoi(parts[1].c_str()) : 0;
    }

    static std::string sectionName(int cameraIndex)
    {
        return cameraIndex < 0 ? std::string("the global section") : format("camera_%d:", cameraIndex);
    }

    void readSection()
    {
        const int lineNo = static_cast<int>(next_) + 1;
        const Line& line = lines_[next_];
        if (!line.terminated) {
            // The library stops at a section start that ends the file without a line break.
            warning(lineNo, "the last line has no line break and is not read");
            ++next_;
            return;
        }
        if (!line.text.empty() && line.text[0] == '#') {
            ++next_;
            return;
        }
        const std::vector<std::string> parts = tokens(line.text);
        const int expected = static_cast<int>(report_.layout.cameras.size());
        if (parts[0] == format("camera_%d:", expected)) {
            readCamera(lineNo, expected);
            return;
        }
        if (parts[0].rfind("camera_", 0) == 0)
            error(lineNo, format("'%s' where 'camera_%d:' was expected: cameras must come in order; this line "
                                 "starts a global section and overwrites the sizes",
                                 parts[0].c_str(), expected));
        readGlobal();
    }

    void readCamera(int headerLine, int index)
    {
        LintCamera camera;
        camera.headerLine = headerLine;
        camera.blockCount = dataValue("block count", index);
        camera.nonoverlapNum = dataValue("nonoverlap_num", index);
        camera.overlapNum = dataValue("overlap_num", index);
        if (camera.nonoverlapNum < 0 || camera.overlapNum < 0 || camera.nonoverlapNum + camera.overlapNum > 64) {
            error(headerLine, format("camera_%d: block counts %d + %d are not plausible; stopped reading the file",
                                     index, camera.nonoverlapNum, camera.overlapNum));
            next_ = lines_.size();
            return;
        }
        for (int b = 0; b < camera.nonoverlapNum; ++b) {
            LintBlock block;
            block.dst_startx = dataValue("dst_startx", index);
            block.dst_width = dataValue("dst_width", index);
            block.mesh_width = dataValue("mesh_width", index);
            block.mesh_height = dataValue("mesh_height", index);
            camera.blocks.push_back(block);
        }
        for (int b = 0; b < camera.overlapNum; ++b) {
            LintBlock block;
            block.overlap = true;
            block.band_num = dataValue("band_num", index);
            block.dst_startx = dataValue("dst_startx", index);
            block.dst_width = dataValue("dst_width", index);
            block.mesh_width = dataValue("mesh_width", index);
            block.mesh_height = dataValue("mesh_height", index);
            block.alpha_width = dataValue("alpha_width", index);
            block.alpha_height = dataValue("alpha_height", index);
            camera.blocks.push_back(block);
        }
        report_.layout.cameras.push_back(camera);
    }

    void readGlobal()
    {
        LintLayout& layout = report_.layout;
        if (++layout.globalSections > 1)
            warning(static_cast<int>(next_) + 1, "a second global section: its values replace the first one's");
        // The section's first line is the one that started it.
        layout.src_width = dataValue("src_width", -1);
        layout.src_height = dataValue("src_height", -1);
        layout.bld_width = dataValue("bld_width", -1);
        layout.bld_height = dataValue("bld_height", -1);
        layout.step_x = dataValue("step_x", -1);
        layout.step_y = dataValue("step_y", -1);
    }

    std::string path_;
    CheckReport& report_;
    std::string text_;
    std::vector<Line> lines_;
    size_t next_ = 0;
};

long fileSize(const std::string& path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
    return static_cast<long>(st.st_size);
}

class CalibrationChecker {
public:
    CalibrationChecker(const std::string& dir, int cameras, CheckReport& report)
        : dir_(withSlash(dir)), cameras_(cameras), report_(report)
    {
    }

    void run()
    {
        ParamReader reader(dir_ + kParamFileName, report_);
        if (!reader.read()) return;
        checkGlobal();
        checkCameraCount();
        LintLayout& layout = report_.layout;
        for (size_t c = 0; c < layout.cameras.size(); ++c) checkCamera(static_cast<int>(c));
        checkMeshNameCollisions();
        report_.plan = planSeams(layout);
        checkAlphaFiles();
    }

private:
    void add(Finding::Severity severity, const std::string& file, int line, const std::string& message)
    {
        report_.findings.push_back({severity, file, line, message});
    }
    std::string paramPath() const { return dir_ + kParamFileName; }

    void checkGlobal()
    {
        const LintLayout& l = report_.layout;
        if (l.globalSections == 0) {
            add(Finding::Error, paramPath(), 0, "no global section (src_width ... step_y)");
            return;
        }
        if (l.src_width <= 0 || l.src_height <= 0 || l.bld_width <= 0 || l.bld_height <= 0)
            add(Finding::Error, paramPath(), 0,
                format("sizes must be positive: source %dx%d, panorama %dx%d", l.src_width, l.src_height,
                       l.bld_width, l.bld_height));
        if (l.step_x <= 0 || l.step_y <= 0)
            add(Finding::Error, paramPath(), 0, format("mesh steps must be positive: %d x %d", l.step_x, l.step_y));
        if (l.src_width >= 16384 || l.src_height >= 16384 || l.bld_width >= 16384 || l.bld_height >= 16384)
            add(Finding::Error, paramPath(), 0, "a size reaches the 16384 texture limit");
    }

    void checkCameraCount()
    {
        const int found = static_cast<int>(report_.layout.cameras.size());
        if (found == 0) add(Finding::Error, paramPath(), 0, "no camera section");
        if (found > 10) add(Finding::Error, paramPath(), 0, format("%d cameras: at most 10 are supported", found));
        if (cameras_ > found)
            add(Finding::Error, paramPath(), 0,
                format("%d cameras asked for but the file has %d camera sections", cameras_, found));
        if (cameras_ > 0 && cameras_ < found) report_.layout.cameras.resize(cameras_);
    }

    void checkCamera(int c)
    {
        const LintLayout& layout = report_.layout;
        const LintCamera& camera = layout.cameras[c];
        const int blocks = camera.nonoverlapNum + camera.overlapNum;
        if (camera.blockCount != blocks)
            add(Finding::Error, paramPath(), camera.headerLine,
                format("camera_%d: the header says %d blocks but nonoverlap_num + overlap_num = %d", c,
                       camera.blockCount, blocks));
        if (blocks > kMaxBlocksPerCamera)
            add(Finding::Error, paramPath(), camera.headerLine,
                format("camera_%d has %d blocks: at most %d per camera", c, blocks, kMaxBlocksPerCamera));
        for (int b = 0; b < static_cast<int>(camera.blocks.size()); ++b) checkBlock(c, b);
    }

    void checkBlock(int c, int b)
    {
        const LintLayout& layout = report_.layout;
        const LintBlock& block = layout.cameras[c].blocks[b];
        const std::string name = format("camera_%d: %s block %d", c, block.overlap ? "overlap" : "non-overlap", b);
        const int line = layout.cameras[c].headerLine;
        if (block.dst_startx < 0 || block.dst_width <= 0 || block.dst_startx + block.dst_width > layout.bld_width)
            add(Finding::Error, paramPath(), line,
                format("%s: columns %d..%d lie outside the panorama (width %d)", name.c_str(), block.dst_startx,
                       block.dst_startx + block.dst_width, layout.bld_width));
        if (block.mesh_width < 2 || block.mesh_height < 2) {
            add(Finding::Error, paramPath(), line,
                format("%s: a mesh of %d x %d nodes cannot be drawn (2 x 2 at least)", name.c_str(),
                       block.mesh_width, block.mesh_height));
        } else if (layout.step_x > 0 && layout.step_y > 0) {
            const int spanX = (block.mesh_width - 1) * layout.step_x;
            const int spanY = (block.mesh_height - 1) * layout.step_y;
            if (spanX != block.dst_width)
                add(Finding::Error, paramPath(), line,
                    format("%s: the mesh spans (%d - 1) x step_x %d = %d columns but the block is %d wide",
                           name.c_str(), block.mesh_width, layout.step_x, spanX, block.dst_width));
            if (spanY != layout.bld_height)
                add(Finding::Error, paramPath(), line,
                    format("%s: the mesh spans (%d - 1) x step_y %d = %d rows but the panorama is %d high",
                           name.c_str(), block.mesh_height, layout.step_y, spanY, layout.bld_height));
        }
        if (block.overlap && block.alpha_width != block.dst_width)
            add(Finding::Warning, paramPath(), line,
                format("%s: alpha_width %d differs from the block width %d", name.c_str(), block.alpha_width,
                       block.dst_width));
        checkMeshFile(c, b, 'x');
        checkMeshFile(c, b, 'y');
    }

    std::string meshPath(int c, int b, char axis) const
    {
        return format("%szq_ps_gpu_mesh%c%d%d.bin", dir_.c_str(), axis, c, b);
    }

    void checkMeshFile(int c, int b, char axis)
    {
        const LintLayout& layout = report_.layout;
        const LintBlock& block = layout.cameras[c].blocks[b];
        const std::string path = meshPath(c, b, axis);
        const long size = fileSize(path);
        if (size < 0) {
            add(Finding::Error, path, 0, format("missing mesh file of camera %d block %d", c, b));
            return;
        }
        const long expected = static_cast<long>(block.mesh_width) * block.mesh_height * 4;
        if (block.mesh_width <= 0 || block.mesh_height <= 0) return;
        if (size != expected) {
            add(Finding::Error, path, 0,
                format("%ld bytes, expected %d x %d floats = %ld bytes", size, block.mesh_width, block.mesh_height,
                       expected));
            return;
        }
        const int limit = axis == 'x' ? layout.src_width : layout.src_height;
        std::vector<float> values(static_cast<size_t>(expected / 4));
        FILE* file = fopen(path.c_str(), "rb");
        if (!file || fread(values.data(), 4, values.size(), file) != values.size()) {
            add(Finding::Error, path, 0, "cannot be read");
            if (file) fclose(file);
            return;
        }
        fclose(file);
        long outside = 0;
        for (float v : values)
            if (!std::isfinite(v) || v < -1.0f || v > limit) ++outside;
        if (outside > 0)
            add(Finding::Warning, path, 0,
                format("%ld of %zu nodes lie outside the source image (0..%d): edge pixels are repeated there",
                       outside, values.size(), limit));
    }

    void checkMeshNameCollisions()
    {
        std::map<std::string, std::pair<int, int>> seen;
        const LintLayout& layout = report_.layout;
        for (size_t c = 0; c < layout.cameras.size(); ++c) {
            for (size_t b = 0; b < layout.cameras[c].blocks.size(); ++b) {
                const std::string path = meshPath(static_cast<int>(c), static_cast<int>(b), 'x');
                auto found = seen.emplace(path, std::make_pair(static_cast<int>(c), static_cast<int>(b)));
                if (!found.second)
                    add(Finding::Error, path, 0,
                        format("camera %zu block %zu and camera %d block %d read the same mesh files", c, b,
                               found.first->second.first, found.first->second.second));
            }
        }
    }

    void checkAlphaFiles()
    {
        const int cameras = static_cast<int>(report_.layout.cameras.size());
        for (const SeamPlan& seam : report_.plan) {
            if (!seam.blended) continue;
            const std::string path =
                format("%szq_ps_gpu_alpha%d%d.bin", dir_.c_str(), seam.camera, (seam.camera + 1) % cameras);
            const long size = fileSize(path);
            const long elements = alphaElementCount(seam.width, seam.height, seam.levels);
            if (size < 0)
                add(Finding::Error, path, 0, format("missing alpha map of the seam of camera %d", seam.camera));
            else if (size != elements && size != elements * 4)
                add(Finding::Error, path, 0,
                    format("%ld bytes, expected %ld (U8) or %ld (float) for %d levels of %d x %d", size, elements,
                           elements * 4, seam.levels, seam.width, seam.height));
        }
    }

    std::string dir_;
    int cameras_;
    CheckReport& report_;
};

// Planning of one camera against its neighbour by start columns; the first match wins.
SeamPlan planOneCamera(const LintLayout& layout, int c)
{
    const int cameras = static_cast<int>(layout.cameras.size());
    SeamPlan plan;
    plan.camera = c;
    plan.neighbour = (c + 1 == cameras) ? 0 : c + 1;
    const LintCamera& own = layout.cameras[c];
    const LintCamera& next = layout.cameras[plan.neighbour];
    const int p = own.overlapNum, q = next.overlapNum;
    auto overlapStart = [](const LintCamera& camera, int k) {
        return camera.blocks[camera.nonoverlapNum + k].dst_startx;
    };
    if (p <= 0 || q <= 0) {
        plan.reason = format("camera %d has %d overlap blocks and camera %d has %d: nothing to blend", c, p,
                             plan.neighbour, q);
        return plan;
    }
    if (p >= 3) {
        plan.reason = format("camera %d has %d overlap blocks: cameras with more than two are never blended", c, p);
        return plan;
    }
    const int candidates = (p <= 2 && q == 2) ? 2 : 1;  // only block 0 of the neighbour unless it has two
    for (int k = 0; k < candidates && plan.neighbourBlock < 0; ++k)
        for (int own_k = 0; own_k < p; ++own_k)
            if (overlapStart(own, own_k) == overlapStart(next, k)) {
                plan.neighbourBlock = k;
                plan.reason = format("its overlap block %d starts at column %d like overlap block %d of camera %d",
                                     own_k, overlapStart(own, own_k), k, plan.neighbour);
                break;
            }
    if (plan.neighbourBlock < 0)
        plan.reason = format("no overlap block starts in the same column as %s of camera %d",
                             candidates == 2 ? "overlap blocks 0 or 1" : "overlap block 0", plan.neighbour);
    return plan;
}

void takeBlock(const LintLayout& layout, int camera, int block, SeamPlan& plan)
{
    const LintCamera& owner = layout.cameras[camera];
    const LintBlock& b = owner.blocks[owner.nonoverlapNum + block];
    plan.blended = true;
    plan.neighbourBlock = block;
    plan.startx = b.dst_startx;
    plan.width = b.alpha_width;
    plan.height = b.alpha_height;
    plan.levels = b.band_num + 1;
}

}  // namespace

int CheckReport::count(Finding::Severity severity) const
{
    int n = 0;
    for (const Finding& f : findings) n += f.severity == severity;
    return n;
}

long alphaElementCount(int width, int height, int levels)
{
    long total = 0;
    for (int l = 0; l < levels && l < 30; ++l)
        total += static_cast<long>(width / static_cast<double>(1u << l)) *
                 static_cast<long>(height / static_cast<double>(1u << l));
    return total;
}

std::vector<SeamPlan> planSeams(const LintLayout& layout)
{
    const int cameras = static_cast<int>(layout.cameras.size());
    std::vector<SeamPlan> plans;
    if (cameras == 2) {
        // Two cameras are planned by their overlap counts alone.
        const int p = layout.cameras[0].overlapNum, q = layout.cameras[1].overlapNum;
        SeamPlan first, second;
        first.camera = 0, first.neighbour = 1, second.camera = 1, second.neighbour = 0;
        if (p == 1 && q == 1) {
            takeBlock(layout, 0, 0, first);
            first.reason = "two cameras with one overlap block each: blended from camera 0's own block";
            second.reason = "two cameras with one overlap block each: only camera 0 is blended";
        } else if (p == 2 && q == 2) {
            takeBlock(layout, 1, 0, first);
            takeBlock(layout, 1, 1, second);
            first.reason = second.reason = "two cameras with two overlap blocks each: both seams blended";
        } else {
            first.reason = second.reason =
                format("two cameras with %d and %d overlap blocks: only 1 + 1 or 2 + 2 are blended", p, q);
        }
        return {first, second};
    }
    for (int c = 0; c < cameras; ++c) {
        SeamPlan plan = planOneCamera(layout, c);
        if (plan.neighbourBlock >= 0) takeBlock(layout, plan.neighbour, plan.neighbourBlock, plan);
        plans.push_back(plan);
    }
    return plans;
}

CheckReport checkCalibration(const std::string& dir, int cameras)
{
    CheckReport report;
    CalibrationChecker(dir, cameras, report).run();
    return report;
}

std::vector<unsigned char> drawLayoutOverlay(const LintLayout& layout, const std::vector<SeamPlan>& plan,
                                             int* height)
{
    static const unsigned char palette[10][3] = {{230, 25, 75},  {60, 180, 75},  {255, 225, 25}, {0, 130, 200},
                                                 {245, 130, 48}, {145, 30, 180}, {70, 240, 240}, {240, 50, 230},
                                                 {210, 245, 60}, {170, 110, 40}};
    const int band = 32;
    const int width = layout.bld_width > 0 ? layout.bld_width : 1;
    const int cameras = static_cast<int>(layout.cameras.size());
    *height = band * (cameras + 1);
    std::vector<unsigned char> rgb(static_cast<size_t>(width) * *height * 3, 255);
    auto fill = [&](int x0, int x1, int y0, int y1, const unsigned char* colour, bool hatched) {
        for (int y = y0; y < y1; ++y)
            for (int x = std::max(0, x0); x < std::min(width, x1); ++x) {
                const bool light = hatched && ((x + y) / 4) % 2 == 0;
                unsigned char* p = &rgb[(static_cast<size_t>(y) * width + x) * 3];
                for (int k = 0; k < 3; ++k) p[k] = light ? static_cast<unsigned char>((colour[k] + 255) / 2) : colour[k];
            }
    };
    static const unsigned char black[3] = {0, 0, 0};
    for (int c = 0; c < cameras; ++c) {
        for (const LintBlock& b : layout.cameras[c].blocks)
            fill(b.dst_startx, b.dst_startx + b.dst_width, c * band + 2, (c + 1) * band - 2, palette[c % 10],
                 b.overlap);
    }
    // Bottom band: blended seams in black, with the camera colours beside them.
    for (const SeamPlan& seam : plan)
        if (seam.blended) fill(seam.startx, seam.startx + seam.width, cameras * band + 2, (cameras + 1) * band - 2, black, false);
    return rgb;
}

}  // namespace zqavs
