// Access to the blend engine's private state for tests: its pyramids, and the state init leaves.
#ifndef ZQGFX_AVS_TEST_BLEND_ENGINE_SUPPORT_H
#define ZQGFX_AVS_TEST_BLEND_ENGINE_SUPPORT_H

#include <vector>

#include "blend/gles_multiband_blend.h"

namespace zqgfx_gpu_avs {

struct BlendEngineTestAccess {
    using E = zqglMultibandBlend;
    using PaddedAlphaLevel = E::PaddedAlphaLevel;
    // Side A, side B, result, alpha.
    static std::vector<std::vector<drmSharedFramebuffer*>*> pyramids(E& e)
    {
        return {&e.gaussFboAttrA, &e.gaussFboAttrB, &e.outFboAttr, &e.alphaAttr};
    }
    static const std::vector<PaddedAlphaLevel>& padded(E& e) { return e.paddedAlphaLevels; }
    // What init leaves behind (programs 11..14, attribute locations 0 and 1), without pyramids.
    static void adopt(E& e, multibandResource* r)
    {
        e._multiResource = r;
        e.cameraNum = r->cameraNum;
        e.gProgram = 11, e.gProgram_lowest = 12, e.gProgram_blend = 13, e.gProgram_blendYUV = 14;
        e.gvPositionHandle = 0, e.gvTextureTexCoordsHandle = 1;
        e.readFileTexID.assign(r->cameraNum, {});
        e.readFileFboID.assign(r->cameraNum, {});
        for (int i = 0; i < r->cameraNum; ++i)
            for (const drmSharedFramebuffer& f : r->overlap_remap_fbo[i])
                e.readFileTexID[i].push_back(f.texture_id), e.readFileFboID[i].push_back(f.fbo_id);
        for (auto* p : pyramids(e)) p->assign(r->cameraNum, nullptr);
    }
};

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_TEST_BLEND_ENGINE_SUPPORT_H
