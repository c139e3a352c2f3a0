// Test support for the blend engine against the fake driver: an engine built the way its owner
// builds it (zero-filled memory, placement new), a blend layout, access to private state.
#ifndef ZQGFX_AVS_TEST_BLEND_ENGINE_SUPPORT_H
#define ZQGFX_AVS_TEST_BLEND_ENGINE_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "fakegl/fakegl.h"
#include "unit/engine_log_support.h"
#include "gles_multiband_blend.h"

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

namespace blend_test {

using zqgfx_gpu_avs::BlendEngineTestAccess;
using zqgfx_gpu_avs::drmSharedFramebuffer;
using zqgfx_gpu_avs::multibandResource;
using zqgfx_gpu_avs::zqglMultibandBlend;

// Also frees the level arrays the engine keeps on purpose (the last camera's, a failed init's),
// so that the leak checker sees only what the library itself loses.
struct EngineDeleter {
    void operator()(zqglMultibandBlend* engine) const
    {
        for (auto* pyramid : BlendEngineTestAccess::pyramids(*engine))
            for (drmSharedFramebuffer*& levels : *pyramid) free(levels), levels = nullptr;
        engine->~zqglMultibandBlend();
        free(engine);
    }
};
using EnginePtr = std::unique_ptr<zqglMultibandBlend, EngineDeleter>;

inline EnginePtr makeEngine()
{
    return EnginePtr(new (calloc(1, sizeof(zqglMultibandBlend))) zqglMultibandBlend);
}

// Overlap block b of camera c is drawn into framebuffer 200 + 10c + b, texture 100 + 10c + b.
inline GLuint overlapTexture(int camera, int block) { return static_cast<GLuint>(100 + 10 * camera + block); }
inline GLuint overlapFbo(int camera, int block) { return static_cast<GLuint>(200 + 10 * camera + block); }

// `cameras` cameras with `overlaps` overlap blocks each; each camera in `blended` has a seam of
// width x height (also the panorama height) with `levels` levels, starting at x = 100 (c + 1).
inline multibandResource makeLayout(int cameras, std::vector<int> blended, int width, int height, int levels,
                                    int alphaType = FUSE_GPU_ALPHA_FLOAT, int overlaps = 1)
{
    multibandResource r{};
    r.cameraNum = cameras;
    r.bld_width = 1000;
    r.bld_height = height;
    r.avsAlphaType = alphaType;
    r.overlap_num.assign(cameras, overlaps);
    r.overlap_remap_fbo.resize(cameras);
    for (int c = 0; c < cameras; ++c)
        for (int b = 0; b < overlaps; ++b)
            r.overlap_remap_fbo[c].push_back({overlapFbo(c, b), overlapTexture(c, b), nullptr, 0, 0, 0, 0});
    for (auto* v : {&r.multi_band_num, &r.output_width, &r.output_height, &r.output_startx, &r.resize_width,
                    &r.resize_height, &r.resize_startx})
        v->assign(cameras, 0);
    for (int c : blended) {
        r.multi_band_num[c] = levels;
        r.output_width[c] = r.resize_width[c] = width;
        r.output_height[c] = r.resize_height[c] = height;
        r.output_startx[c] = r.resize_startx[c] = 100 * (c + 1);
    }
    return r;
}

inline std::vector<int> flagsOf(int cameras, std::vector<int> blended)
{
    std::vector<int> flags(cameras, 0);
    for (int c : blended) flags[c] = 1;
    return flags;
}

using engine_test::hasErrorLine;
using engine_test::stdoutOf;

struct BlendTest : ::testing::Test {
    void SetUp() override { fakegl::reset(); }
};

}  // namespace blend_test

#endif  // ZQGFX_AVS_TEST_BLEND_ENGINE_SUPPORT_H
