#include "calib_check.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>

namespace zqavs {
namespace {

using zqavs_calib_core::BlockView;
using zqavs_calib_core::format;

std::string withSlash(const std::string& dir)
{
    return (!dir.empty() && dir.back() == '/') ? dir : dir + "/";
}

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
        if (!readParamsFile()) return;
        checkGlobal();
        checkCameraCount();
        for (int c = 0; c < report_.layout.camera_num; ++c) checkCamera(c);
        checkMeshNameCollisions();
        report_.plan = zqavs_calib_core::planSeams(report_.layout, report_.layout.camera_num);
        checkAlphaFiles();
    }

private:
    void add(Finding::Severity severity, const std::string& file, int line, const std::string& message)
    {
        report_.findings.push_back({severity, file, line, message});
    }
    std::string paramPath() const { return dir_ + zqavs_calib_core::kParamsFileName; }

    bool readParamsFile()
    {
        std::ifstream in(paramPath());
        if (!in) {
            add(Finding::Error, paramPath(), 0, "cannot open the parameter file");
            return false;
        }
        const zqavs_calib_core::ParamsSections sections =
            zqavs_calib_core::readParams(in, &report_.layout, [this](const zqavs_calib_core::ParamsDiagnostic& d) {
                add(d.severity == d.Error ? Finding::Error : Finding::Warning, paramPath(), d.line, d.message);
            });
        globalSections_ = sections.globalSections;
        report_.cameraLines = sections.cameraLines;
        return true;
    }

    void checkGlobal()
    {
        const PSR_INITPARAMS_T& l = report_.layout;
        if (globalSections_ == 0) {
            add(Finding::Error, paramPath(), 0, "no global section (src_width ... step_y)");
            return;
        }
        if (l.src_width <= 0 || l.src_height <= 0 || l.bld_width <= 0 || l.bld_height <= 0)
            add(Finding::Error, paramPath(), 0,
                format("sizes must be positive: source %dx%d, panorama %dx%d", l.src_width, l.src_height,
                       l.bld_width, l.bld_height));
        if (l.step_x <= 0 || l.step_y <= 0)
            add(Finding::Error, paramPath(), 0, format("mesh steps must be positive: %d x %d", l.step_x, l.step_y));
        const int limit = zqavs_calib_core::kMaxTextureSize;
        if (std::max({l.src_width, l.src_height, l.bld_width, l.bld_height}) >= limit)
            add(Finding::Error, paramPath(), 0, format("a size reaches the %d texture limit", limit));
    }

    void checkCameraCount()
    {
        const int found = static_cast<int>(report_.cameraLines.size());
        if (found == 0) add(Finding::Error, paramPath(), 0, "no camera section");
        if (found > zqavs_calib_core::kMaxCameras)
            add(Finding::Error, paramPath(), 0,
                format("%d cameras: at most %d are supported", found, zqavs_calib_core::kMaxCameras));
        if (cameras_ > found)
            add(Finding::Error, paramPath(), 0,
                format("%d cameras asked for but the file has %d camera sections", cameras_, found));
        report_.layout.camera_num = cameras_ > 0 && cameras_ < found ? cameras_ : found;
    }

    void checkCamera(int c)
    {
        const PSR_INITPARAMS_T& layout = report_.layout;
        const int n = layout.nonoverlap_block[c].nonoverlap_num;
        const int o = layout.overlap_block[c].overlap_num;
        const std::vector<BlockView> blocks = zqavs_calib_core::cameraBlocks(layout, c);
        // Counts the reader could not follow block by block were reported as it read them.
        if (n < 0 || o < 0 || blocks.size() != static_cast<size_t>(n) + static_cast<size_t>(o)) return;
        const int line = report_.cameraLines[c];
        if (layout.image_block_num[c] != n + o)
            add(Finding::Error, paramPath(), line,
                format("camera_%d: the header says %d blocks but nonoverlap_num + overlap_num = %d", c,
                       layout.image_block_num[c], n + o));
        if (n + o > zqavs_calib_core::kMaxBlocksPerCamera)
            add(Finding::Error, paramPath(), line,
                format("camera_%d has %d blocks: at most %d per camera", c, n + o,
                       zqavs_calib_core::kMaxBlocksPerCamera));
        for (const BlockView& block : blocks) checkBlock(c, block, line);
    }

    void checkBlock(int c, const BlockView& block, int line)
    {
        const PSR_INITPARAMS_T& layout = report_.layout;
        const std::string name =
            format("camera_%d: %s block %d", c, block.overlap ? "overlap" : "non-overlap", block.position);
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
        checkMeshFile(c, block, 'x');
        checkMeshFile(c, block, 'y');
    }

    std::string meshPath(int c, int position, char axis) const
    {
        return dir_ + zqavs_calib_core::meshFileName(axis, c, position);
    }

    void checkMeshFile(int c, const BlockView& block, char axis)
    {
        const PSR_INITPARAMS_T& layout = report_.layout;
        const std::string path = meshPath(c, block.position, axis);
        const long size = fileSize(path);
        if (size < 0) {
            add(Finding::Error, path, 0, format("missing mesh file of camera %d block %d", c, block.position));
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
        for (int c = 0; c < report_.layout.camera_num; ++c) {
            for (const BlockView& block : zqavs_calib_core::cameraBlocks(report_.layout, c)) {
                const std::string path = meshPath(c, block.position, 'x');
                auto found = seen.emplace(path, std::make_pair(c, block.position));
                if (!found.second)
                    add(Finding::Error, path, 0,
                        format("camera %d block %d and camera %d block %d read the same mesh files", c,
                               block.position, found.first->second.first, found.first->second.second));
            }
        }
    }

    void checkAlphaFiles()
    {
        for (const SeamPlan& seam : report_.plan) {
            if (!seam.blended) continue;
            const std::string path = dir_ + zqavs_calib_core::alphaFileName(seam.camera, seam.neighbour);
            const long size = fileSize(path);
            const long elements =
                static_cast<long>(zqavs_calib_core::alphaElementCount(seam.width, seam.height, seam.levels));
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
    int globalSections_ = 0;
};

}  // namespace

int CheckReport::count(Finding::Severity severity) const
{
    int n = 0;
    for (const Finding& f : findings) n += f.severity == severity;
    return n;
}

CheckReport checkCalibration(const std::string& dir, int cameras)
{
    CheckReport report;
    CalibrationChecker(dir, cameras, report).run();
    return report;
}

}  // namespace zqavs
