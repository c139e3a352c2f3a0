// The parameter-file reader, then everything that walks the layout it produced once the loader's
// block checks have passed: block views, file-name collisions, seam planning, the file's text again.
#include <sstream>
#include <string>

#include "avs_calib_core.h"
#include "api/zqgfx_gpu_avs_internal.h"

namespace core = zqavs_calib_core;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    PSR_INITPARAMS_T layout;
    int diagnostics = 0;
    const core::ParamsSections sections =
        core::readParams(in, &layout, [&](const core::ParamsDiagnostic&) { ++diagnostics; });
    layout.camera_num = static_cast<int>(sections.cameraLines.size());
    for (int c = 0; c < layout.camera_num; ++c) core::cameraBlocks(layout, c);
    if (layout.camera_num > core::kMaxCameras || !checkLayoutBlocks(layout, "fuzz")) return 0;
    core::findFileNameCollision(layout);
    // What the writer makes of an accepted layout reads back as the same layout.
    std::istringstream text(core::paramsFileText(layout));
    PSR_INITPARAMS_T reread;
    reread.camera_num = static_cast<int>(core::readParams(text, &reread).cameraLines.size());
    if (reread.camera_num != layout.camera_num || reread.bld_width != layout.bld_width ||
        reread.src_height != layout.src_height || reread.step_y != layout.step_y)
        __builtin_trap();
    for (int c = 0; c < layout.camera_num; ++c)
        if (reread.image_block_num[c] != layout.image_block_num[c] ||
            reread.overlap_block[c].alpha_height != layout.overlap_block[c].alpha_height ||
            reread.nonoverlap_block[c].mesh_height != layout.nonoverlap_block[c].mesh_height)
            __builtin_trap();
    // The planner reads the first two overlap blocks of every camera it plans.
    for (int c = 0; c < layout.camera_num; ++c)
        if (layout.overlap_block[c].overlap_num < 2) return 0;
    for (const core::SeamPlan& plan : core::planSeams(layout, layout.camera_num))
        core::alphaElementCount(plan.width, plan.height, plan.levels);
    return 0;
}
