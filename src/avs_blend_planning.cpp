// Multiband blend planning: which seams are blended, where each blended strip lies, and the
// start of the blend engine.
#include <cstdlib>

#include "DebugLog.h"
#include "gles_multiband_blend.h"
#include "zqgfx_gpu_avs_internal.h"

using zqgfx_gpu_avs::multibandResource;

namespace {

// Camera `camera` blends the seam described by overlap block `block` of camera `source`.
void takeBlock(multibandResource* res, int camera, int source, int block, int* do_blend_array)
{
    res->output_width[camera] = res->alpha_width[source][block];
    res->output_startx[camera] = res->overlap_startx[source][block];
    res->multi_band_num[camera] = res->band_num[source][block];
    res->output_height[camera] = res->alpha_height[source][block];
    do_blend_array[camera] = 1;
}

// Two cameras pair their blocks by count alone, without comparing columns.
void planTwoCameras(const PSR_INITPARAMS_T* layout, multibandResource* res, int* do_blend_array)
{
    const int first = layout->overlap_block[0].overlap_num;
    const int second = layout->overlap_block[1].overlap_num;
    if (first == 1 && second == 1) {
        takeBlock(res, 0, 0, 0, do_blend_array);
        do_blend_array[1] = 0;
    } else if (first == 2 && second == 2) {
        takeBlock(res, 0, 1, 0, do_blend_array);
        takeBlock(res, 1, 1, 1, do_blend_array);
    } else {
        do_blend_array[0] = 0;
        do_blend_array[1] = 0;
    }
}

// Block of the right-hand neighbour whose start column matches one of the camera's first two
// overlap blocks, or -1. Only the neighbour's first two blocks are looked at, and its second
// one only when it has exactly two.
int matchingNeighbourBlock(const PSR_INITPARAMS_T* layout, const multibandResource* res, int camera, int neighbour)
{
    const int p = layout->overlap_block[camera].overlap_num;
    const int q = layout->overlap_block[neighbour].overlap_num;
    if (p <= 0 || q <= 0 || p > 2) return -1;
    const std::vector<int32_t>& own = res->overlap_startx[camera];
    const std::vector<int32_t>& next = res->overlap_startx[neighbour];
    auto startsAt = [&](int column) { return own[0] == column || (p == 2 && own[1] == column); };
    if (startsAt(next[0])) return 0;
    if (q == 2 && startsAt(next[1])) return 1;
    return -1;
}

void planRing(int cam_num, const PSR_INITPARAMS_T* layout, multibandResource* res, int* do_blend_array)
{
    for (int c = 0; c < cam_num; ++c) {
        const int neighbour = c + 1 < cam_num ? c + 1 : 0;
        const int block = matchingNeighbourBlock(layout, res, c, neighbour);
        if (block >= 0)
            takeBlock(res, c, neighbour, block, do_blend_array);
        else
            do_blend_array[c] = 0;
    }
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
    if (cam_num == 2)
        planTwoCameras(init_params_temp, multiband_res, do_blend_array);
    else
        planRing(cam_num, init_params_temp, multiband_res, do_blend_array);
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
