// Remap engine tests against the fake driver: an engine built as its owner builds it (zero-filled
// memory, placement new), and small stitching layouts built block by block.
#ifndef ZQGFX_AVS_TEST_REMAP_ENGINE_SUPPORT_H
#define ZQGFX_AVS_TEST_REMAP_ENGINE_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <regex>
#include <string>
#include <vector>

#include "fakegl/fakegl.h"
#include "unit/engine_log_support.h"
#include "remap/gl_nv12_remap.h"
#include "blend/gles_multiband_blend.h"

namespace remap_test {

// Frees the import table as well unless ZQ_EGL_Deinit ran: the destructor leaves it to de-init.
struct EngineDeleter {
    bool deinitialised = false;
    void operator()(zqgfx_gpu_avs::ZQGL_Remap* engine) const
    {
        if (!deinitialised) free(engine->cache_input_fd);
        engine->~ZQGL_Remap();
        free(engine);
    }
};
using EnginePtr = std::unique_ptr<zqgfx_gpu_avs::ZQGL_Remap, EngineDeleter>;

inline EnginePtr makeEngine()
{
    return EnginePtr(new (calloc(1, sizeof(zqgfx_gpu_avs::ZQGL_Remap))) zqgfx_gpu_avs::ZQGL_Remap);
}

// The calls from `from` on whose names `filter` finds, runs of one name written "name*n", to
// compare call sequences with a compact expected string.
inline std::string callSequence(const std::string& filter, size_t from = 0)
{
    const std::regex wanted(filter);
    std::string out, last;
    int run = 0;
    auto close = [&] {
        if (run > 0) out += (out.empty() ? "" : " ") + last + (run > 1 ? "*" + std::to_string(run) : "");
    };
    for (size_t i = from; i < fakegl::calls().size(); ++i) {
        const std::string& fn = fakegl::calls()[i].fn;
        if (!std::regex_search(fn, wanted)) continue;
        if (fn != last) close(), last = fn, run = 0;
        ++run;
    }
    close();
    return out;
}

using engine_test::hasErrorLine;
using engine_test::stdoutOf;

// One block of a test layout: destination start and width, mesh nodes across and down.
struct TestBlock {
    int startx, width, mesh_w, mesh_h;
};

inline PSR_INITPARAMS_T makeLayout(int bld_w, int bld_h)
{
    PSR_INITPARAMS_T layout;
    layout.src_width = 640, layout.src_height = 480, layout.bld_width = bld_w, layout.bld_height = bld_h;
    layout.step_x = layout.step_y = 16;
    return layout;
}

template <class Blocks>
void fillBlocks(Blocks& list, int& count, const std::vector<TestBlock>& blocks)
{
    count = static_cast<int>(blocks.size());
    for (const TestBlock& b : blocks)
        list.dst_startx.push_back(b.startx), list.dst_width.push_back(b.width), list.mesh_width.push_back(b.mesh_w),
            list.mesh_height.push_back(b.mesh_h);
}

inline void addCamera(PSR_INITPARAMS_T& layout, const std::vector<TestBlock>& plain,
                      const std::vector<TestBlock>& overlap)
{
    layout.nonoverlap_block.emplace_back();
    fillBlocks(layout.nonoverlap_block.back(), layout.nonoverlap_block.back().nonoverlap_num, plain);
    layout.overlap_block.emplace_back();
    fillBlocks(layout.overlap_block.back(), layout.overlap_block.back().overlap_num, overlap);
    layout.camera_num = static_cast<int>(layout.nonoverlap_block.size());
}

}  // namespace remap_test

#endif  // ZQGFX_AVS_TEST_REMAP_ENGINE_SUPPORT_H
