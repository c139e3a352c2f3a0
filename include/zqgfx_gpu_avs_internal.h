// Library-internal declarations of the entry-point unit: calibration loading, blend planning
// and access to the calling thread's instance (for the tool and the tests).
#ifndef ZQGFX_AVS_INTERNAL_H
#define ZQGFX_AVS_INTERNAL_H

#include <string>
#include <vector>

#include "zqgfx_gpu_avs.h"

namespace zqgfx_gpu_avs {
struct multibandResource;
class ZQGL_Remap;
class zqglMultibandBlend;
}

// Per-thread table of mesh pointers: per camera, per block (non-overlap blocks, then overlap).
struct inputMeshCoords {
    std::vector<std::vector<float*>> input_meshx;
    std::vector<std::vector<float*>> input_meshy;
};

// Parameter file and mesh files (file mode), caller records (buffer mode). 0 / -1.
int readTxtParamsAVS(std::string mesh_params_path, PSR_INITPARAMS_T* output_params);
int readBinParamsAVS(std::string image_path, char* output_params, long length);
int read_files_and_init_params(ZQGFX_AVS_CONTEXT_T* mcontext, PSR_INITPARAMS_T* init_params_instance);
int get_mesh_and_init_params(ZQGFX_AVS_CONTEXT_T* mcontext, PSR_INITPARAMS_T* init_params_instance);

// Mesh file name of block `block` of camera `camera`: path + prefix + camera + block + ".bin".
std::string meshFileName(const char* meshFilePath, const char* prefix, int camera, int block);

// Blend planning: which camera's seam is blended and where its strip lies.
int get_do_multiband_blend_array(int cam_num, PSR_INITPARAMS_T* init_params_temp,
                                 zqgfx_gpu_avs::multibandResource* multiband_res, int* do_blend_array);
// Fills the blend layout of a resource from a layout and a context (steps before the engine starts).
void fill_multiband_layout(const PSR_INITPARAMS_T* layout, const ZQGFX_AVS_CONTEXT_T* context,
                           zqgfx_gpu_avs::multibandResource* resource, int* do_blend_array);
int init_multiband_blend(ZQGFX_AVS_CONTEXT_T* context);

// The caller's running block number -> the engines' mesh index (camera * 10 + block), or -1.
int translate_mesh_index(const PSR_INITPARAMS_T* layout, int meshIndex);

// The calling thread's instance, for the tool and the tests (null before init).
struct AvsThreadInstance {
    PSR_INITPARAMS_T* init_params;
    inputMeshCoords* mInputMeshCoords;
    inputMeshCoords* mUseInputMeshCoords;
    zqgfx_gpu_avs::multibandResource* multiband_resource;
    zqgfx_gpu_avs::ZQGL_Remap* zqRemapInstance;
    zqgfx_gpu_avs::zqglMultibandBlend* zqMultibandBlendInstance;
    int* doBlendArray;
    int if_init_avs;
};
AvsThreadInstance avs_thread_instance();

#endif  // ZQGFX_AVS_INTERNAL_H
