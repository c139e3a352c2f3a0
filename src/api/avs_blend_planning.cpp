// Multiband blend planning: which seams are blended, where each blended strip lies, and the
// start of the blend engine.
#include <cstdlib>

#include "gl/DebugLog.h"
#include "blend/gles_multiband_blend.h"
#include "api/zqgfx_gpu_avs_internal.h"

using zqgfx_gpu_avs::multibandResource;

namespace {

// Camera `plan.camera` blends the strip its plan found.
void takeStrip(const zqavs_calib_core::SeamPlan& plan, multibandResource* res, int* do_blend_array)
{
    res->output_width[plan.camera] = plan.width;
    res->output_startx[plan.camera] = plan.startx;
    res->multi_band_num[plan.camera] = plan.levels;
    res->output_height[plan.camera] = plan.height;
    do_blend_array[plan.camera] = 1;
}

void sizePerBlockFields(const PSR_INITPARAMS_T* layout, multibandResource* res)
{
    const int cameras = layout->camera_num;
    res->alpha_width.assign(cameras, {});
    res->alpha_height.assign(cameras, {});
    res->band_num.assign(cameras, {});
    res->overlap_startx.assign(cameras, {});
    for (int c = 0; c < cameras; ++c) {
        const zqPSR_OVERLAP_BLOCK& overlap = layout->overlap_block[c];
        for (int b = 0; b < overlap.overlap_num; ++b) {
            res->alpha_width[c].push_back(overlap.alpha_width[b]);
            res->alpha_height[c].push_back(overlap.alpha_height[b]);
            res->band_num[c].push_back(overlap.band_num[b] + 1);  // one level more than the layout gives
            res->overlap_startx[c].push_back(overlap.dst_startx[b]);
            AVS_LOGD("avs-debug alpha_width=%d,alpha_height=%d,band_num=%d\n", res->alpha_width[c][b],
                     res->alpha_height[c][b], res->band_num[c][b]);
        }
    }
}

void sizePerCameraFields(int cameras, multibandResource* res)
{
    for (std::vector<int32_t>* field : {&res->multi_band_num, &res->output_width, &res->output_height,
                                        &res->output_startx, &res->resize_width, &res->resize_height,
                                        &res->resize_startx})
        field->assign(cameras, 0);
}

}  // namespace

void refreshPlanningLogLevel()
{
    zqgfx_gpu_avs::UpdateAvsLogLevel();
}

int get_do_multiband_blend_array(int cam_num, PSR_INITPARAMS_T* init_params_temp, multibandResource* multiband_res,
                                 int* do_blend_array)
{
    for (const zqavs_calib_core::SeamPlan& plan : zqavs_calib_core::planSeams(*init_params_temp, cam_num)) {
        if (plan.blended)
            takeStrip(plan, multiband_res, do_blend_array);
        else
            do_blend_array[plan.camera] = 0;
    }
    for (int c = 0; c < cam_num; ++c) {
        multiband_res->resize_width[c] = multiband_res->output_width[c];
        multiband_res->resize_startx[c] = multiband_res->output_startx[c];
        multiband_res->resize_height[c] = multiband_res->bld_height;
    }
    return 0;
}

void fill_multiband_layout(PSR_INITPARAMS_T* layout, const ZQGFX_AVS_CONTEXT_T* context,
                           multibandResource* resource, int* do_blend_array)
{
    resource->cameraNum = layout->camera_num;
    resource->bld_height = layout->bld_height;
    resource->bld_width = layout->bld_width;
    resource->useSync = context->useSync;
    resource->outputIsAFBC = context->outputIsAFBC;
    resource->meshFilePath = context->meshFilePath;
    resource->avsFuseType = context->avsFuseType;
    resource->avsAlphaType = context->avsAlphaType;
    sizePerBlockFields(layout, resource);
    sizePerCameraFields(layout->camera_num, resource);
    get_do_multiband_blend_array(layout->camera_num, layout, resource, do_blend_array);
    resource->useMeshBufAddress = context->useMeshBufAddress;
    resource->meshAlphaDrmBufMsgArray = context->meshAlphaDrmBufMsgArray;
}

int init_multiband_blend(ZQGFX_AVS_CONTEXT_T* context)
{
    zqgfx_gpu_avs::AvsTimer timer;
    AvsThreadInstance& state = avs_thread_state();
    const int cameras = state.init_params->camera_num;
    // Not cleared: planning writes every entry.
    state.doBlendArray = static_cast<int*>(malloc(sizeof(int) * (cameras > 0 ? cameras : 1)));
    if (state.doBlendArray == nullptr) {
        AVS_LOGE("cannot allocate the blend flags of %d cameras, FAILED!", cameras);
        return 1;
    }
    fill_multiband_layout(state.init_params, context, state.multiband_resource, state.doBlendArray);
    if (state.zqMultibandBlendInstance->initMultibandBlend(state.multiband_resource, state.doBlendArray) < 0)
        return 1;
    AVS_LOG_TIME(timer);
    return 0;
}
