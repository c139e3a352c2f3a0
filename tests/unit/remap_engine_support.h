// Remap engine tests against the fake driver: an engine built as its owner builds it
// (zero-filled memory, placement new).
#ifndef ZQGFX_AVS_TEST_REMAP_ENGINE_SUPPORT_H
#define ZQGFX_AVS_TEST_REMAP_ENGINE_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <regex>
#include <string>

#include "fakegl/fakegl.h"
#include "unit/engine_log_support.h"
#include "gl_nv12_remap.h"
#include "gles_multiband_blend.h"

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

// A fresh fake driver and an engine whose ZQ_EGL_Init succeeded on it.
class InitialisedEngine : public testing::Test {
protected:
    void SetUp() override
    {
        fakegl::reset();
        testing::internal::CaptureStderr();  // keeps the set-up's EGL lines out of the test log
        int result = engine->ZQ_EGL_Init(&resource);
        testing::internal::GetCapturedStderr();
        ASSERT_EQ(result, 0);
    }

    EnginePtr engine = makeEngine();
    zqgfx_gpu_avs::multibandResource resource{};
};

}  // namespace remap_test

#endif  // ZQGFX_AVS_TEST_REMAP_ENGINE_SUPPORT_H
