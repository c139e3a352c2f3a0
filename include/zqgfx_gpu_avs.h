// libzqgfx_avs public interface: GPU panorama stitching of 1 to 10 NV12 cameras.
//
// Calling order, all on one thread (every piece of instance state is thread-local):
//   1. fill a ZQGFX_AVS_CONTEXT_S and call ZQGFX_AVS_init once;
//   2. per frame point inputFdArray at numView + 1 dma-buf descriptors (cameras, then output)
//      and call ZQGFX_AVS_AllProcess; with useSync set, then ZQGFX_AVS_create_sync and
//      ZQGFX_AVS_wait_sync before the output is read;
//   3. between frames: ZQGFX_AVS_update_mesh, ZQGFX_AVS_resize;
//   4. ZQGFX_AVS_deinit once.
#ifndef ZQGFX_GPU_AVS_H
#define ZQGFX_GPU_AVS_H

#include <cstdint>
#include <vector>

// The entry points below are the library's only exported symbols.
#if defined(ZQGFX_AVS_BUILDING_LIBRARY)
#define ZQGFX_AVS_EXPORT __attribute__((visibility("default")))
#else
#define ZQGFX_AVS_EXPORT
#endif

typedef enum {
    ZQGFX_AVS_SUCCESS = 0,
    ZQGFX_AVS_INVALID_PARAM = 1,  // declared for callers; never returned
    ZQGFX_AVS_FAILED = 2,
} ZQGFX_AVS_STATUS;

typedef enum zqPSR_FORMAT_E {
    PSR_TYPE_GRAY = 0,
    PSR_TYPE_RGB = 1,
    PSR_TYPE_YUV420SP = 2,
} PSR_FORMAT_E;

enum zqPSR_FUSE_ALPHA_TYPE_E {
    FUSE_GPU_ALPHA_FLOAT = 0,
    FUSE_GPU_ALPHA_U8 = 1,
};

typedef struct ZQGFX_AVS_CONTEXT_S {
    uint32_t apiVersion;
    uint32_t numView;
    char* meshFilePath;           // directory prefix, must end in "/"
    uint32_t inputBufferWidth;    // multiple of 16, >= src_width; also the line stride
    uint32_t inputBufferHeight;   // == src_height
    uint32_t inputBufferFormat;
    uint32_t inputIsAFBC;
    uint32_t outputBufferWidth;   // multiple of 16, >= bld_width
    uint32_t outputBufferHeight;  // == bld_height at init
    uint32_t outputBufferFormat;
    uint32_t outputIsAFBC;
    uint32_t useFd;
    int* inputFdArray;            // numView camera descriptors, then the output's
    uint32_t useSync;
    int avsFuseType;
    int avsAlphaType;             // a zqPSR_FUSE_ALPHA_TYPE_E value
    uint32_t useMeshBufAddress;   // 0: calibration files; else the three pointers below
    void* AVS_initParams;         // PSR_INITPARAMS_S*
    void** avsRemapMeshArray;     // PSR_REMAP_MESH_S* per block, in mesh order
    void** meshAlphaDrmBufMsgArray;  // PSR_DRM_BUF_MSG_S* per blended seam
} ZQGFX_AVS_CONTEXT_T;

typedef struct zqPSR_NONOVERLAP_BLOCK {
    int nonoverlap_num = 0;
    std::vector<int> dst_startx;
    std::vector<int> dst_width;
    std::vector<int> mesh_width;
    std::vector<int> mesh_height;
} PSR_NONOVERLAP_BLOCK;

typedef struct zqPSR_OVERLAP_BLOCK {
    int overlap_num = 0;
    std::vector<int> band_num;
    std::vector<int> dst_startx;
    std::vector<int> dst_width;
    std::vector<int> mesh_width;
    std::vector<int> mesh_height;
    std::vector<int> alpha_width;
    std::vector<int> alpha_height;
} PSR_OVERLAP_BLOCK;

typedef struct PSR_INITPARAMS_S {
    int camera_num = 0;
    int image_stride = 0;
    uint32_t output_image_stride = 0;
    PSR_FORMAT_E image_formate = PSR_TYPE_GRAY;
    int src_width = 0;
    int src_height = 0;
    int bld_width = 0;
    int bld_height = 0;
    int step_x = 0;
    int step_y = 0;
    std::vector<zqPSR_NONOVERLAP_BLOCK> nonoverlap_block;
    std::vector<zqPSR_OVERLAP_BLOCK> overlap_block;
    std::vector<int> image_block_num;
    uint32_t use_gain = 0;
    int gain_step_x = 0;
    int gain_step_y = 0;
    uint32_t useSync = 0;
} PSR_INITPARAMS_T;

typedef struct PSR_DRM_BUF_MSG_S {
    void* vir_addr;
    int mem_fd;
    int mem_offset;
    int64_t mem_size;
} PSR_DRM_BUF_MSG_T;

typedef struct PSR_REMAP_MESH_S {
    int meshIndex;
    int meshxStep_;
    int meshyStep_;
    int meshWidth_;
    int meshHeight_;
    void* meshxBufAddr_;
    int meshxFd_;
    void* meshyBufAddr_;
    int meshyFd_;
} PSR_REMAP_MESH;

// Per-stage times of one profiled frame, in milliseconds, and the frame's GPU work.
// On the plane paths the non-overlap blocks are drawn in the same passes as the blend's finest
// level (one pass per output plane), so their time counts under blend_ms there.
typedef struct ZQGFX_AVS_STAGE_TIMES_S {
    double import_ms;   // descriptor import / upload of the camera images
    double remap_ms;    // remap passes (plane paths: the blended seams' sides only)
    double pyramid_ms;  // Gaussian pyramids of the blended seams
    double blend_ms;    // blend passes into the output (plane paths: with the non-overlap blocks)
    double finish_ms;   // plane paths: read-back into the caller's buffer, or the wait for the GPU
    bool gpu_timers;    // true when measured with GPU timer queries (GL_EXT_disjoint_timer_query),
                        // false for wall clock with the GPU drained between stages
    int64_t render_passes;  // draws into another framebuffer than the draw before them
    int64_t draw_calls;
    int64_t triangles;
    int64_t fragments;      // fragments the draws cover (on planes and portable an output texel
                            // holds 4 luma pixels or 2 CbCr pairs)
} ZQGFX_AVS_STAGE_TIMES_T;

extern "C" {
ZQGFX_AVS_EXPORT ZQGFX_AVS_STATUS ZQGFX_AVS_init(void* context);
ZQGFX_AVS_EXPORT ZQGFX_AVS_STATUS ZQGFX_AVS_resize(void* context);
ZQGFX_AVS_EXPORT ZQGFX_AVS_STATUS ZQGFX_AVS_AllProcess(void* context);
ZQGFX_AVS_EXPORT ZQGFX_AVS_STATUS ZQGFX_AVS_update_mesh(void* context, PSR_REMAP_MESH* newMesh);
ZQGFX_AVS_EXPORT void* ZQGFX_AVS_create_sync();
ZQGFX_AVS_EXPORT ZQGFX_AVS_STATUS ZQGFX_AVS_wait_sync(void* gles_proceess_sync);
ZQGFX_AVS_EXPORT ZQGFX_AVS_STATUS ZQGFX_AVS_deinit(void* context);

// Which rendering path the calling thread's instance runs: "target" (dma-buf import and YUV
// render targets), "planes" (dma-buf import of luma and chroma planes, zero-copy), "portable"
// (plain GLES 3.1 with CPU-mapped buffers), or "none" before a successful ZQGFX_AVS_init on this
// thread.
ZQGFX_AVS_EXPORT const char* ZQGFX_AVS_get_path();

// Profiling hook: runs one frame of the calling thread's instance like ZQGFX_AVS_AllProcess and
// fills `times`: each stage's GPU time from timer queries where the driver has
// GL_EXT_disjoint_timer_query (gpu_timers set), else its wall-clock time with the GPU drained
// between stages; and the frame's render passes, draw calls, triangles and fragments. Waits for
// the GPU: for benchmarks, not for production. ZQGFX_AVS_FAILED before init or without the
// frame's inputs.
ZQGFX_AVS_EXPORT ZQGFX_AVS_STATUS ZQGFX_AVS_profile_frame(void* context, ZQGFX_AVS_STAGE_TIMES_T* times);

// Exposure and white-balance compensation: every frame the two sides of each blended seam are
// compared (mean R, G, B over a coarse grid of the overlap, leaving out samples near black or
// white and samples where the sides disagree far more than the rest), gains are solved from all
// seams at once, and the applied gains follow them smoothly in the log domain. The measurement
// is read back without waiting for the frame, so an estimate acts one frame later.
//   mode 0: off (the output is exactly that of an instance without compensation);
//   mode 1: one gain per camera; mode 2: one gain per camera and colour channel.
//   smoothing in (0, 1]: the share of the way to the new estimate taken per frame (1: at once;
//   0.1 follows an exposure change within about a second at 30 frames per second).
// Gains are clamped to [0.5, 2]; a camera without a blended seam keeps gain 1. On the calling
// thread, after ZQGFX_AVS_init and between frames, on every path. ZQGFX_AVS_FAILED with an error
// line for a bad mode or smoothing, or before init. With compensation on, each frame reads a
// little of its blend back (a small, coarse pyramid level) and draws with gain-applying programs.
// In buffer mode, PSR_INITPARAMS_S::use_gain 1 or 2 turns the mode on at init (smoothing 0.1).
ZQGFX_AVS_EXPORT ZQGFX_AVS_STATUS ZQGFX_AVS_set_compensation(void* context, int mode, float smoothing);

// The gains applied to the last frame: numView x 3 floats (R, G, B per camera, in camera order);
// all 1 with compensation off. ZQGFX_AVS_FAILED when `count` is smaller than numView x 3.
ZQGFX_AVS_EXPORT ZQGFX_AVS_STATUS ZQGFX_AVS_get_compensation(void* context, float* gains, int count);
}

#endif  // ZQGFX_GPU_AVS_H
