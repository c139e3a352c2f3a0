// The exported entry points and the calling thread's instance state.
#include <cstdlib>
#include <new>

#include "gl/DebugLog.h"
#include "remap/gl_nv12_remap.h"
#include "blend/gles_multiband_blend.h"
#include "api/zqgfx_gpu_avs_internal.h"

using zqgfx_gpu_avs::AvsTimer;
using zqgfx_gpu_avs::multibandResource;
using zqgfx_gpu_avs::ZQGL_Remap;
using zqgfx_gpu_avs::zqglMultibandBlend;

namespace {

const char* const kLibraryVersion = "v6.9b1";

// Every thread runs its own instance; zero before its first init.
thread_local AvsThreadInstance t_instance;

// The engines are zero-filled before construction: their scalar members start at 0.
template <typename Engine>
Engine* createZeroFilled()
{
    void* memory = calloc(1, sizeof(Engine));
    return memory ? new (memory) Engine : nullptr;
}

template <typename Engine>
void destroyZeroFilled(Engine* engine)
{
    if (engine == nullptr) return;
    engine->~Engine();
    free(engine);
}

// The engines keep their traces silent, so what the driver offers and which paths it could not
// serve, and why, are logged here, where the user's log level is set.
void logGpuCaps(const zqgfx_gpu_avs::AvsGpuCaps& caps)
{
    using zqgfx_gpu_avs::GpuPath;
    AVS_LOGD("GL renderer %s, version %s", caps.renderer, caps.version);
    AVS_LOGD("GL limits: texture %d, render target %d, texture units %d", caps.maxTextureSize,
             caps.maxRenderbufferSize, caps.maxTextureUnits);
    AVS_LOGD("EGL_EXT_image_dma_buf_import=%d EGL_EXT_image_dma_buf_import_modifiers=%d EGL_KHR_fence_sync=%d "
             "EGL_MESA_platform_surfaceless=%d",
             caps.has_EGL_EXT_image_dma_buf_import, caps.has_EGL_EXT_image_dma_buf_import_modifiers,
             caps.has_EGL_KHR_fence_sync, caps.has_EGL_MESA_platform_surfaceless);
    AVS_LOGD("GL_OES_EGL_image_external=%d GL_EXT_YUV_target=%d GL_EXT_disjoint_timer_query=%d "
             "GL_OES_texture_float_linear=%d plane image import=%d",
             caps.has_GL_OES_EGL_image_external, caps.has_GL_EXT_YUV_target, caps.has_GL_EXT_disjoint_timer_query,
             caps.has_GL_OES_texture_float_linear, caps.imports_plane_images);
    for (GpuPath path : {GpuPath::target, GpuPath::planes, GpuPath::portable}) {
        const char* why = caps.declined[static_cast<int>(path)];
        if (why != nullptr) AVS_LOGD("path %s declined: %s", zqgfx_gpu_avs::gpuPathName(path), why);
    }
    AVS_LOGD("rendering path: %s (%s)\n", zqgfx_gpu_avs::gpuPathName(caps.path), caps.reason);
}

// Frame calls on a thread without a finished init would use half-made or no objects.
bool instanceReady()
{
    return t_instance.if_init_avs == 1;
}

int init_coords_and_params(ZQGFX_AVS_CONTEXT_T* context)
{
    AvsTimer timer;
    AvsThreadInstance& state = t_instance;
    state.ifUseMeshBufAddress = context->useMeshBufAddress;
    state.mUseInputMeshCoords = new inputMeshCoords;
    // Published at once so that what a failed init leaves behind stays reachable.
    PSR_INITPARAMS_T* layout = state.init_params = new PSR_INITPARAMS_T;
    AVS_LOGD("init_params_internal=%p", static_cast<void*>(layout));
    if (context->useMeshBufAddress) {
        if (get_mesh_and_init_params(context, layout) < 0) return 1;
        AVS_LOGD("mcontext->avsRemapMeshArray=%p", static_cast<void*>(context->avsRemapMeshArray));
        AVS_LOGD("mcontext->meshAlphaDrmBufMsgArray=%p", static_cast<void*>(context->meshAlphaDrmBufMsgArray));
    } else {
        state.mInputMeshCoords = new inputMeshCoords;
        if (read_files_and_init_params(context, layout) < 0) return 1;
    }
    AVS_LOGD("__thread PSR_INITPARAMS_T *init_params=%p", static_cast<void*>(state.init_params));
    AVS_LOG_TIME(timer);
    return 0;
}

void freeOwnedMeshes(const PSR_INITPARAMS_T& layout, inputMeshCoords* owned)
{
    for (int c = 0; c < layout.camera_num; ++c) {
        const int nonoverlap = layout.nonoverlap_block[c].nonoverlap_num;
        for (int b = 0; b < nonoverlap; ++b) {
            free(owned->input_meshx[c][b]);
            free(owned->input_meshy[c][b]);
        }
        for (int b = 0; b < layout.overlap_block[c].overlap_num; ++b) {
            free(owned->input_meshx[c][nonoverlap + b]);
            free(owned->input_meshy[c][nonoverlap + b]);
        }
    }
}

void deinit_coords_and_params()
{
    AvsTimer timer;
    AvsThreadInstance& state = t_instance;
    if (state.ifUseMeshBufAddress == 0) {
        PSR_INITPARAMS_T* layout = state.init_params;
        freeOwnedMeshes(*layout, state.mInputMeshCoords);
        std::vector<zqPSR_NONOVERLAP_BLOCK>().swap(layout->nonoverlap_block);
        std::vector<zqPSR_OVERLAP_BLOCK>().swap(layout->overlap_block);
        std::vector<int>().swap(layout->image_block_num);
        delete state.mInputMeshCoords;
    }
    // In buffer mode the mesh data stay with the caller.
    delete state.init_params;
    delete state.mUseInputMeshCoords;
    AVS_LOG_TIME(timer);
}

// Books each stage's time when a frame is profiled; idle otherwise. With GPU timer queries a
// stage is the GPU time of its commands; without, the wall clock with the GPU drained after it.
class StageClock {
public:
    StageClock(AvsStageTimes* times, bool gpuTimers) : times_(times), gpu_(times != nullptr && gpuTimers)
    {
        if (!gpu_) return;
        glGenQueries(kStages, queries_);
        glBeginQuery(GL_TIME_ELAPSED_EXT, queries_[0]);
    }
    ~StageClock()
    {
        if (!gpu_) return;
        if (laps_ < kStages) glEndQuery(GL_TIME_ELAPSED_EXT);  // a failed frame stops early
        glDeleteQueries(kStages, queries_);
    }
    StageClock(const StageClock&) = delete;
    StageClock& operator=(const StageClock&) = delete;

    void lap(double AvsStageTimes::*stage)
    {
        if (times_ == nullptr || laps_ >= kStages) return;
        if (gpu_) {
            glEndQuery(GL_TIME_ELAPSED_EXT);
            stages_[laps_++] = stage;
            if (laps_ < kStages) glBeginQuery(GL_TIME_ELAPSED_EXT, queries_[laps_]);
            return;
        }
        glFinish();
        times_->*stage = timer_.elapsedMs();
        timer_ = AvsTimer();
        ++laps_;
    }
    // Reads the GPU times back (waiting for them) once every stage has been booked.
    void collect()
    {
        if (!gpu_) return;
        for (int i = 0; i < laps_; ++i) {
            GLuint ns = 0;
            glGetQueryObjectuiv(queries_[i], GL_QUERY_RESULT, &ns);
            times_->*stages_[i] = ns / 1e6;
        }
        GLint disjoint = 0;
        glGetIntegerv(GL_GPU_DISJOINT_EXT, &disjoint);
        times_->gpu_timers = disjoint == 0;  // a disjoint operation makes the times meaningless
    }

private:
    static constexpr int kStages = 5;
    AvsStageTimes* times_;
    bool gpu_;
    int laps_ = 0;
    GLuint queries_[kStages] = {};
    double AvsStageTimes::*stages_[kStages] = {};
    AvsTimer timer_;
};

int blendIntoPlane(void* blend, const zqgfx_gpu_avs::OutputPlane& plane)
{
    return static_cast<zqglMultibandBlend*>(blend)->blendSeamsIntoPlane(plane);
}

// The plane paths' frame: the seams' sides into the blend's atlas, their pyramids, and then one
// pass per output plane for the non-overlap blocks and the seams' finest level together.
int drawPlaneFrame(ZQGL_Remap* remap, zqglMultibandBlend* blend, int* doBlendArray, StageClock& clock)
{
    blend->collectExposure();
    if (remap->glesRemapOverlapNew() < 0) return -1;
    clock.lap(&AvsStageTimes::remap_ms);
    if (blend->glesMultibandDrawGauss(doBlendArray) < 0 || !blend->measureExposure()) return -1;
    clock.lap(&AvsStageTimes::pyramid_ms);
    if (blend->collapseSeams() < 0 || remap->drawOutputPlanes(blendIntoPlane, blend) < 0) return -1;
    clock.lap(&AvsStageTimes::blend_ms);
    return 0;
}

// The target path's frame, in the interface's order of passes.
int drawYuvFrame(ZQGL_Remap* remap, zqglMultibandBlend* blend, int* doBlendArray, StageClock& clock)
{
    blend->collectExposure();
    if (remap->glesRemapNonoverlapNew() < 0 || remap->glesRemapOverlapNew() < 0) return -1;
    clock.lap(&AvsStageTimes::remap_ms);
    if (blend->glesMultibandDrawGauss(doBlendArray) < 0 || !blend->measureExposure()) return -1;
    clock.lap(&AvsStageTimes::pyramid_ms);
    if (blend->glesMultibandBlend(remap->outputPlanes(), doBlendArray) < 0) return -1;
    clock.lap(&AvsStageTimes::blend_ms);
    return 0;
}

// One frame's steps in order; the first failing step ends the frame. 0 or -1.
int runFrameSteps(const ZQGFX_AVS_CONTEXT_T* context, AvsStageTimes* times)
{
    AvsThreadInstance& state = t_instance;
    ZQGL_Remap* remap = state.zqRemapInstance;
    zqglMultibandBlend* blend = state.zqMultibandBlendInstance;
    multibandResource& shared = *state.multiband_resource;
    shared.counters.startFrame();
    StageClock clock(times, shared.caps.has_GL_EXT_disjoint_timer_query);
    GLuint outFBO_id = 0;
    if (remap->create_texture_and_fbo(context->inputFdArray, context->inputIsAFBC, context->outputIsAFBC,
                                      &outFBO_id) < 0)
        return -1;
    clock.lap(&AvsStageTimes::import_ms);
    const int drawn = shared.caps.drawsPlanes() ? drawPlaneFrame(remap, blend, state.doBlendArray, clock)
                                                : drawYuvFrame(remap, blend, state.doBlendArray, clock);
    if (drawn < 0) return -1;
    // Plane paths: the frame reaches the caller's buffer (read-back or a wait); nothing on the target path.
    if (remap->finishOutputFrame() < 0) return -1;
    clock.lap(&AvsStageTimes::finish_ms);
    clock.collect();
    if (times != nullptr) {
        times->render_passes = shared.counters.passes;
        times->draw_calls = shared.counters.draws;
        times->triangles = shared.counters.triangles;
        times->fragments = shared.counters.fragments;
    }
    return 0;
}

// The frame-time calls refuse a missing context or an uninitialised thread in their own name.
bool frameCallReady(const void* context, const char* caller)
{
    if (context == nullptr) {
        AVS_LOGE_IN(caller, "input context is NULL, return FAILED!");
        return false;
    }
    if (!instanceReady()) {
        AVS_LOGE_IN(caller, "no initialised instance on this thread, FAILED!");
        return false;
    }
    return true;
}

bool frameInputsPresent(const ZQGFX_AVS_CONTEXT_T* context)
{
    if (context->inputFdArray != nullptr) return true;
    AVS_LOGE("inputFdArray is NULL, FAILED!");
    return false;
}

// Compensation is measured on the blend's Gaussian levels and applied by the remap programs.
int applyCompensation(int mode, float smoothing, const char* caller)
{
    AvsThreadInstance& state = t_instance;
    if (mode < 0 || mode > 2) {
        AVS_LOGE_IN(caller, "compensation mode %d is none of 0 (off), 1 (gain), 2 (channels), FAILED!", mode);
        return -1;
    }
    if (!(smoothing > 0.0f && smoothing <= 1.0f)) {
        AVS_LOGE_IN(caller, "compensation smoothing %g is not in (0, 1], FAILED!", static_cast<double>(smoothing));
        return -1;
    }
    if (mode != 0 && !state.zqRemapInstance->createGainPrograms()) return -1;
    state.zqMultibandBlendInstance->compensation.configure(static_cast<zqgfx_gpu_avs::CompensationMode>(mode),
                                                           smoothing, state.init_params->camera_num);
    AVS_LOGD("exposure compensation: mode %d, smoothing %g", mode, static_cast<double>(smoothing));
    return 0;
}

// In buffer mode the caller's layout can turn compensation on at init; files never do.
void applyCompensationOfLayout(const ZQGFX_AVS_CONTEXT_T* context)
{
    const uint32_t mode = t_instance.init_params->use_gain;
    if (!context->useMeshBufAddress || mode == 0) return;
    if (applyCompensation(static_cast<int>(mode), static_cast<float>(zqgfx_gpu_avs::ExposureCompensation::kDefaultSmoothing),
                          "ZQGFX_AVS_init") != 0)
        AVS_LOGE("use_gain=%u is ignored: the frames are stitched without compensation", mode);
}

}  // namespace

AvsThreadInstance avs_thread_instance()
{
    return t_instance;
}

AvsThreadInstance& avs_thread_state()
{
    return t_instance;
}

int read_files_and_init_params(ZQGFX_AVS_CONTEXT_T* mcontext, PSR_INITPARAMS_T* init_params_instance)
{
    return read_files_and_init_params(mcontext, init_params_instance, t_instance.mInputMeshCoords,
                                      t_instance.mUseInputMeshCoords);
}

int get_mesh_and_init_params(ZQGFX_AVS_CONTEXT_T* mcontext, PSR_INITPARAMS_T* init_params_instance)
{
    return get_mesh_and_init_params(mcontext, init_params_instance, t_instance.mUseInputMeshCoords);
}

int translate_mesh_index(const PSR_INITPARAMS_T* layout, int meshIndex)
{
    int count = 0;
    for (int c = 0; c < layout->camera_num; ++c) {
        const int nonoverlap = layout->nonoverlap_block[c].nonoverlap_num;
        for (int b = 0; b < nonoverlap; ++b, ++count)
            if (count == meshIndex) return c * 10 + b;
        for (int b = 0; b < layout->overlap_block[c].overlap_num; ++b, ++count)
            if (count == meshIndex) return c * 10 + nonoverlap + b;
    }
    return -1;
}

int avs_profile_frame(ZQGFX_AVS_CONTEXT_T* context, AvsStageTimes* times)
{
    if (context == nullptr || times == nullptr || !instanceReady() || !frameInputsPresent(context)) return -1;
    *times = AvsStageTimes{};
    return runFrameSteps(context, times);
}

extern "C" {

ZQGFX_AVS_STATUS ZQGFX_AVS_init(void* context)
{
    zqgfx_gpu_avs::UpdateAvsLogLevel();
    refreshCalibrationLogLevel();
    refreshPlanningLogLevel();
    if (context == nullptr) {
        AVS_LOGE("input context is NULL, return FAILED!");
        return ZQGFX_AVS_FAILED;
    }
    ZQGFX_AVS_CONTEXT_T* ctx = static_cast<ZQGFX_AVS_CONTEXT_T*>(context);
    AVS_LOGE("inputBufferFormat:0x%x,useMeshBufAddress=%d,numView=%d\n", ctx->inputBufferFormat,
             ctx->useMeshBufAddress, ctx->numView);
    AvsTimer timer;
    // The failures below free nothing made so far [kept:K1].
    if (init_coords_and_params(ctx) != 0) {
        AVS_LOGE("init_coords_and_params FAILED!");
        return ZQGFX_AVS_FAILED;
    }
    AvsThreadInstance& state = t_instance;
    state.multiband_resource = new multibandResource;
    state.zqRemapInstance = createZeroFilled<ZQGL_Remap>();
    state.zqMultibandBlendInstance = createZeroFilled<zqglMultibandBlend>();
    AVS_LOGD("__thread multiband_resource=%p zqRemapInstance=%p zqMultibandBlendInstance=%p\n",
             static_cast<void*>(state.multiband_resource), static_cast<void*>(state.zqRemapInstance),
             static_cast<void*>(state.zqMultibandBlendInstance));
    if (state.zqRemapInstance == nullptr || state.zqMultibandBlendInstance == nullptr ||
        state.zqRemapInstance->ZQ_EGL_Init(state.multiband_resource) != 0) {
        AVS_LOGE("ZQ_EGL_Init FAILED!");
        return ZQGFX_AVS_FAILED;
    }
    logGpuCaps(state.multiband_resource->caps);
    if (state.zqRemapInstance->glesRemapInit(state.init_params, state.multiband_resource,
                                             state.mUseInputMeshCoords->input_meshx,
                                             state.mUseInputMeshCoords->input_meshy) != 0) {
        AVS_LOGE("glesRemapInit FAILED!");
        return ZQGFX_AVS_FAILED;
    }
    if (init_multiband_blend(ctx) != 0) {
        AVS_LOGE("init_multiband_blend FAILED!");
        return ZQGFX_AVS_FAILED;
    }
    state.if_init_avs = 1;
    applyCompensationOfLayout(ctx);
    AVS_LOGE("Init success! Version:%s, use_time=%fms\n", kLibraryVersion, timer.elapsedMs());
    return ZQGFX_AVS_SUCCESS;
}

ZQGFX_AVS_STATUS ZQGFX_AVS_resize(void* context)
{
    AvsTimer timer;
    if (!frameCallReady(context, __FUNCTION__)) return ZQGFX_AVS_FAILED;
    ZQGFX_AVS_CONTEXT_T* ctx = static_cast<ZQGFX_AVS_CONTEXT_T*>(context);
    AvsThreadInstance& state = t_instance;
    AVS_LOGD("inputBufferFormat:0x%x\n", ctx->inputBufferFormat);
    state.zqRemapInstance->glesRemapResize(state.init_params, state.multiband_resource, state.doBlendArray,
                                           static_cast<int>(ctx->outputBufferWidth),
                                           static_cast<int>(ctx->outputBufferHeight));
    AVS_LOG_TIME(timer);
    return ZQGFX_AVS_SUCCESS;
}

ZQGFX_AVS_STATUS ZQGFX_AVS_AllProcess(void* context)
{
    AvsTimer timer;
    if (!frameCallReady(context, __FUNCTION__)) return ZQGFX_AVS_FAILED;
    ZQGFX_AVS_CONTEXT_T* ctx = static_cast<ZQGFX_AVS_CONTEXT_T*>(context);
    AVS_LOGD("avs-debug inputIsAFBC=%d outputIsAFBC=%d\n", ctx->inputIsAFBC, ctx->outputIsAFBC);
    if (!frameInputsPresent(ctx) || runFrameSteps(ctx, nullptr) < 0) return ZQGFX_AVS_FAILED;
    if (ctx->useSync)
        glFlush();  // the caller waits on a fence
    else
        glFinish();
    AVS_LOG_TIME(timer);
    return ZQGFX_AVS_SUCCESS;
}

ZQGFX_AVS_STATUS ZQGFX_AVS_update_mesh(void* /*context*/, PSR_REMAP_MESH* newMesh)
{
    if (newMesh == nullptr || !instanceReady()) {
        AVS_LOGE("no mesh or no initialised instance on this thread, FAILED!");
        return ZQGFX_AVS_FAILED;
    }
    AvsThreadInstance& state = t_instance;
    // An index past the last block goes on as -1: the remap engine refuses it.
    const int innerIndex = translate_mesh_index(state.init_params, newMesh->meshIndex);
    AVS_LOGD("Update mesh: index=%d inner_index=%d step_x=%d step_y=%d mesh_w=%d mesh_h=%d mesh_x=%p mesh_y=%p\n",
             newMesh->meshIndex, innerIndex, newMesh->meshxStep_, newMesh->meshyStep_, newMesh->meshWidth_,
             newMesh->meshHeight_, newMesh->meshxBufAddr_, newMesh->meshyBufAddr_);
    if (state.zqRemapInstance->glesRemapUpdateMesh(innerIndex, newMesh->meshxStep_, newMesh->meshyStep_,
                                                   newMesh->meshWidth_, newMesh->meshHeight_,
                                                   newMesh->meshxBufAddr_, newMesh->meshyBufAddr_) != 0) {
        AVS_LOGE("ZQGFX_AVS_update_mesh FAILED!\n");
        return ZQGFX_AVS_FAILED;
    }
    return ZQGFX_AVS_SUCCESS;
}

void* ZQGFX_AVS_create_sync()
{
    if (!instanceReady()) {
        AVS_LOGE("no initialised instance on this thread, FAILED!");
        return nullptr;
    }
    return t_instance.zqRemapInstance->gles_create_sync();
}

ZQGFX_AVS_STATUS ZQGFX_AVS_wait_sync(void* gles_proceess_sync)
{
    if (!instanceReady()) {
        AVS_LOGE("no initialised instance on this thread, FAILED!");
        return ZQGFX_AVS_FAILED;
    }
    return t_instance.zqRemapInstance->gles_wait_sync(gles_proceess_sync) != 0 ? ZQGFX_AVS_FAILED
                                                                                : ZQGFX_AVS_SUCCESS;
}

ZQGFX_AVS_STATUS ZQGFX_AVS_deinit(void* /*context*/)
{
    AvsThreadInstance& state = t_instance;
    if (state.if_init_avs != 1) return ZQGFX_AVS_SUCCESS;
    deinit_coords_and_params();
    state.zqMultibandBlendInstance->deinitMultibandBlend(state.doBlendArray);
    state.zqRemapInstance->ZQ_EGL_Deinit();
    free(state.doBlendArray);
    state.if_init_avs = 0;
    delete state.multiband_resource;
    destroyZeroFilled(state.zqRemapInstance);
    destroyZeroFilled(state.zqMultibandBlendInstance);
    // The thread's pointers keep their old values [kept:K2].
    return ZQGFX_AVS_SUCCESS;
}

ZQGFX_AVS_STATUS ZQGFX_AVS_profile_frame(void* context, ZQGFX_AVS_STAGE_TIMES_T* times)
{
    return avs_profile_frame(static_cast<ZQGFX_AVS_CONTEXT_T*>(context), times) == 0 ? ZQGFX_AVS_SUCCESS
                                                                                     : ZQGFX_AVS_FAILED;
}

ZQGFX_AVS_STATUS ZQGFX_AVS_set_compensation(void* context, int mode, float smoothing)
{
    if (!frameCallReady(context, __FUNCTION__)) return ZQGFX_AVS_FAILED;
    return applyCompensation(mode, smoothing, __FUNCTION__) == 0 ? ZQGFX_AVS_SUCCESS : ZQGFX_AVS_FAILED;
}

ZQGFX_AVS_STATUS ZQGFX_AVS_get_compensation(void* context, float* gains, int count)
{
    if (!frameCallReady(context, __FUNCTION__)) return ZQGFX_AVS_FAILED;
    const int cameras = t_instance.init_params->camera_num;
    if (gains == nullptr || count < 3 * cameras) {
        AVS_LOGE("%d gains asked for, the %d cameras have %d, FAILED!", gains == nullptr ? 0 : count, cameras,
                 3 * cameras);
        return ZQGFX_AVS_FAILED;
    }
    const zqgfx_gpu_avs::ExposureCompensation& compensation = t_instance.zqMultibandBlendInstance->compensation;
    for (int camera = 0; camera < cameras; ++camera)
        for (int c = 0; c < 3; ++c)
            gains[3 * camera + c] =
                camera < compensation.cameraCount() ? static_cast<float>(compensation.gains(camera)[c]) : 1.0f;
    return ZQGFX_AVS_SUCCESS;
}

const char* ZQGFX_AVS_get_path()
{
    if (!instanceReady() || t_instance.multiband_resource == nullptr) return "none";
    return gpuPathName(t_instance.multiband_resource->caps.path);
}

}  // extern "C"
