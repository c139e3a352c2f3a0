// The public header must compile on its own, first in its unit, and keep its record layouts.
#include "zqgfx_gpu_avs.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

TEST(PublicHeader, ContextFieldOrderMatchesTheCallersAbi)
{
    // Callers built against the header fill these by position: a reordering would break them.
    EXPECT_LT(offsetof(ZQGFX_AVS_CONTEXT_S, numView), offsetof(ZQGFX_AVS_CONTEXT_S, meshFilePath));
    EXPECT_LT(offsetof(ZQGFX_AVS_CONTEXT_S, outputIsAFBC), offsetof(ZQGFX_AVS_CONTEXT_S, useFd));
    EXPECT_LT(offsetof(ZQGFX_AVS_CONTEXT_S, inputFdArray), offsetof(ZQGFX_AVS_CONTEXT_S, useSync));
    EXPECT_LT(offsetof(ZQGFX_AVS_CONTEXT_S, useMeshBufAddress), offsetof(ZQGFX_AVS_CONTEXT_S, AVS_initParams));
    EXPECT_EQ(offsetof(PSR_DRM_BUF_MSG_S, vir_addr), 0u);
    EXPECT_EQ(sizeof(PSR_DRM_BUF_MSG_S::mem_size), 8u);
    EXPECT_LT(offsetof(PSR_REMAP_MESH_S, meshxBufAddr_), offsetof(PSR_REMAP_MESH_S, meshyBufAddr_));
    EXPECT_TRUE(std::is_unsigned<decltype(PSR_INITPARAMS_S::output_image_stride)>::value);
    EXPECT_TRUE(std::is_signed<decltype(PSR_INITPARAMS_S::bld_width)>::value);
}
