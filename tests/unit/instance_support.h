// Ending the calling thread's instance whatever state init left it in, so that the leak checker
// sees only what the library itself keeps.
#ifndef ZQAVS_TESTS_INSTANCE_SUPPORT_H
#define ZQAVS_TESTS_INSTANCE_SUPPORT_H

#include <cstdlib>
#include <vector>

#include "fakegl/fakegl.h"
#include "remap/gl_nv12_remap.h"
#include "blend/gles_multiband_blend.h"
#include "api/zqgfx_gpu_avs_internal.h"

namespace entry_test {

inline void forgetInstance() { avs_thread_state() = AvsThreadInstance{}; }

// The meshes that file-mode loading read into `tables`.
inline void freeMeshTables(inputMeshCoords& tables)
{
    for (auto* table : {&tables.input_meshx, &tables.input_meshy})
        for (auto& camera : *table)
            for (float* mesh : camera) free(mesh);
    tables = inputMeshCoords();
}

// Deinit for an instance that got as far as a context (a failed init past the EGL set-up is
// released like a finished one); otherwise the allocations alone, as a failed init frees nothing.
// Then the thread has none.
inline void endInstance(ZQGFX_AVS_CONTEXT_T* context)
{
    AvsThreadInstance& s = avs_thread_state();
    if (s.if_init_avs == 1 || fakegl::liveObjects("context") > 0) {
        s.if_init_avs = 1;
        ZQGFX_AVS_deinit(context);
    } else {
        if (s.mInputMeshCoords != nullptr) freeMeshTables(*s.mInputMeshCoords);
        delete s.mInputMeshCoords;
        delete s.init_params;
        delete s.mUseInputMeshCoords;
        delete s.multiband_resource;
        if (s.zqRemapInstance) s.zqRemapInstance->~ZQGL_Remap(), free(s.zqRemapInstance);
        if (s.zqMultibandBlendInstance) s.zqMultibandBlendInstance->~zqglMultibandBlend(), free(s.zqMultibandBlendInstance);
        free(s.doBlendArray);
    }
    forgetInstance();
}

// One init and, when it succeeds, one frame on the fake driver with made-up descriptors; then the
// instance is ended whatever happened.
inline void initFrameAndEnd(ZQGFX_AVS_CONTEXT_T* context, int cameras)
{
    std::vector<int> fds(static_cast<size_t>(cameras) + 1);
    for (size_t i = 0; i < fds.size(); ++i) fds[i] = 100 + static_cast<int>(i);
    context->inputFdArray = fds.data();
    fakegl::reset();
    if (ZQGFX_AVS_init(context) == ZQGFX_AVS_SUCCESS) ZQGFX_AVS_AllProcess(context);
    endInstance(context);
}

}  // namespace entry_test

#endif  // ZQAVS_TESTS_INSTANCE_SUPPORT_H
