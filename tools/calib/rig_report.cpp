// The text report of a rig calibration.
#include <sstream>

#include "rig_layout_internal.h"

namespace zqavs_calib {

namespace {

std::string columns(int start, int width)
{
    return formatText("%d..%d", start, start + width - 1);
}

std::string cameraLine(const PSR_INITPARAMS_T& layout, int c)
{
    std::string line = formatText("camera %d:", c);
    const PSR_NONOVERLAP_BLOCK& nb = layout.nonoverlap_block[c];
    for (int b = 0; b < nb.nonoverlap_num; ++b)
        line += formatText(" [block %d own %s]", b, columns(nb.dst_startx[b], nb.dst_width[b]).c_str());
    const PSR_OVERLAP_BLOCK& ob = layout.overlap_block[c];
    for (int b = 0; b < ob.overlap_num; ++b)
        line += formatText(" [block %d seam %s]", nb.nonoverlap_num + b, columns(ob.dst_startx[b], ob.dst_width[b]).c_str());
    return line;
}

std::string seamLine(const RigSeam& seam, int panoramaWidth)
{
    const int view = seam.view_end - seam.view_start;
    const int viewStart = ((seam.view_start % panoramaWidth) + panoramaWidth) % panoramaWidth;
    return formatText("seam %d-%d: overlap available %d columns (%s), used %d columns (%s)", seam.window.left_camera,
                      seam.window.right_camera, view, columns(viewStart, view).c_str(), seam.window.width,
                      columns(seam.window.startx, seam.window.width).c_str());
}

}  // namespace

std::string calibrationReport(const RigCalibration& calib)
{
    const PSR_INITPARAMS_T& layout = calib.calibration.layout;
    std::ostringstream out;
    out << formatText("panorama %d x %d, step %d, %d cameras of %d x %d\n", layout.bld_width, layout.bld_height,
                      layout.step_x, layout.camera_num, layout.src_width, layout.src_height);
    for (int c = 0; c < layout.camera_num; ++c) out << cameraLine(layout, c) << '\n';
    for (const RigSeam& seam : calib.seams) out << seamLine(seam, layout.bld_width) << '\n';
    out << formatText("mesh interpolation error at step %d: max %.3f, mean %.3f source pixels\n", layout.step_x,
                      calib.meshError.max, calib.meshError.mean);
    return out.str();
}

}  // namespace zqavs_calib
