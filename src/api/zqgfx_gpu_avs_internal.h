// Library-internal declarations of the entry-point unit: calibration loading, blend planning
// and access to the calling thread's instance (for the tool and the tests).
#ifndef ZQGFX_AVS_INTERNAL_H
#define ZQGFX_AVS_INTERNAL_H

#include <cstdint>
#include <string>
#include <vector>

#include "calib_core/avs_calib_core.h"
#include "zqgfx_gpu_avs.h"

namespace zqgfx_gpu_avs {
struct multibandResource;
class ZQGL_Remap;
class zqglMultibandBlend;
}

using zqavs_calib_core::kMaxBlocksPerCamera;

// Per-thread table of mesh pointers: per camera, per block (non-overlap blocks, then overlap).
struct inputMeshCoords {
    std::vector<std::vector<float*>> input_meshx;
    std::vector<std::vector<float*>> input_meshy;
};

// Parameter file: 1 when it was opened and read, 0 when it could not be opened.
int readTxtParamsAVS(std::string mesh_params_path, PSR_INITPARAMS_T* output_params);
// Raw file into `output_params`: 1 when `length` bytes were read, 0 otherwise.
int readBinParamsAVS(std::string image_path, char* output_params, long length);

// Layout and meshes, 0 / -1. File mode allocates the mesh arrays into `owned` and mirrors the
// pointers into `used`; buffer mode points `used` at the caller's buffers.
int read_files_and_init_params(ZQGFX_AVS_CONTEXT_T* mcontext, PSR_INITPARAMS_T* init_params_instance,
                               inputMeshCoords* owned, inputMeshCoords* used);
int get_mesh_and_init_params(ZQGFX_AVS_CONTEXT_T* mcontext, PSR_INITPARAMS_T* init_params_instance,
                             inputMeshCoords* used);
// The same, on the calling thread's tables.
int read_files_and_init_params(ZQGFX_AVS_CONTEXT_T* mcontext, PSR_INITPARAMS_T* init_params_instance);
int get_mesh_and_init_params(ZQGFX_AVS_CONTEXT_T* mcontext, PSR_INITPARAMS_T* init_params_instance);

// True when the first `camera_num` cameras of `layout` can be indexed safely: the block arrays
// cover camera_num cameras, every count is non-negative, at most kMaxBlocksPerCamera, sums to the
// camera's image_block_num, and every per-block array and mesh size is there and not negative.
// Each fault is reported with `source` (a file or record name); false when there was any.
bool checkLayoutBlocks(const PSR_INITPARAMS_T& layout, const char* source);

// Blend planning: which camera's seam is blended and where its strip lies.
int get_do_multiband_blend_array(int cam_num, PSR_INITPARAMS_T* init_params_temp,
                                 zqgfx_gpu_avs::multibandResource* multiband_res, int* do_blend_array);
// Fills the blend layout of a resource from a layout and a context and plans the seams into
// `do_blend_array` (camera_num ints): everything before the blend engine starts.
void fill_multiband_layout(PSR_INITPARAMS_T* layout, const ZQGFX_AVS_CONTEXT_T* context,
                           zqgfx_gpu_avs::multibandResource* resource, int* do_blend_array);
// On the calling thread's instance: fill, plan, start the blend engine. 0, or 1 on failure.
int init_multiband_blend(ZQGFX_AVS_CONTEXT_T* context);

// The caller's running block number -> the engines' mesh index (camera * 10 + block), or -1.
int translate_mesh_index(const PSR_INITPARAMS_T* layout, int meshIndex);

// Each unit keeps its own copy of the log level; init refreshes those of the entry-point units.
void refreshCalibrationLogLevel();
void refreshPlanningLogLevel();

// The calling thread's instance (all null / 0 before init).
struct AvsThreadInstance {
    PSR_INITPARAMS_T* init_params;
    inputMeshCoords* mInputMeshCoords;
    inputMeshCoords* mUseInputMeshCoords;
    zqgfx_gpu_avs::multibandResource* multiband_resource;
    zqgfx_gpu_avs::ZQGL_Remap* zqRemapInstance;
    zqgfx_gpu_avs::zqglMultibandBlend* zqMultibandBlendInstance;
    int* doBlendArray;
    int if_init_avs;
    uint32_t ifUseMeshBufAddress;
};
// A snapshot, for the tool and the tests.
AvsThreadInstance avs_thread_instance();
// The state itself, for the entry-point units.
AvsThreadInstance& avs_thread_state();

using AvsStageTimes = ZQGFX_AVS_STAGE_TIMES_T;
// Runs one frame of the calling thread's instance like ZQGFX_AVS_AllProcess, draining the GPU
// between stages to time each. 0 on success, -1 on failure. For benchmarks only.
int avs_profile_frame(ZQGFX_AVS_CONTEXT_T* context, AvsStageTimes* times);

#endif  // ZQGFX_AVS_INTERNAL_H
