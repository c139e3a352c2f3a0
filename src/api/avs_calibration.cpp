// Calibration loading: the layout parameter file, the mesh files (file mode) and the caller's
// records (buffer mode).
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <iostream>

#include "gl/DebugLog.h"
#include "gl/common_resource.h"
#include "api/zqgfx_gpu_avs_internal.h"

using zqavs_calib_core::kParamsFileName;
using zqavs_calib_core::meshFileName;
using zqgfx_gpu_avs::alignTo16;

namespace {

const char* const kCallerLayoutName = "AVS_initParams";

// ---- layout checks ----------------------------------------------------------------------

bool bufferFits(uint32_t width, uint32_t height, int minWidth, int exactHeight)
{
    return width % 16 == 0 && static_cast<int64_t>(width) >= minWidth &&
           static_cast<int64_t>(height) == exactHeight;
}

bool inputBufferFits(const ZQGFX_AVS_CONTEXT_T& context, const PSR_INITPARAMS_T& layout)
{
    return bufferFits(context.inputBufferWidth, context.inputBufferHeight, layout.src_width, layout.src_height);
}

bool outputBufferFits(const ZQGFX_AVS_CONTEXT_T& context, const PSR_INITPARAMS_T& layout)
{
    return bufferFits(context.outputBufferWidth, context.outputBufferHeight, layout.bld_width, layout.bld_height);
}

// Both buffers against the layout; the refusal, in the caller's name, recommends a size.
bool buffersFit(const ZQGFX_AVS_CONTEXT_T& context, const PSR_INITPARAMS_T& layout, const char* verdict,
                const char* caller)
{
    if (!inputBufferFits(context, layout)) {
        AVS_LOGE_IN(caller, "inputBufferWidth %s, recommend size: %dx%d\n", verdict, alignTo16(layout.src_width),
                    layout.src_height);
        return false;
    }
    if (!outputBufferFits(context, layout)) {
        AVS_LOGE_IN(caller, "outputBufferWidth %s, recommend size: %dx%d\n", verdict,
                    static_cast<int>(layout.output_image_stride), layout.bld_height);
        return false;
    }
    return true;
}

bool allHaveEntries(std::initializer_list<const std::vector<int>*> arrays, int count)
{
    return std::all_of(arrays.begin(), arrays.end(),
                       [count](const std::vector<int>* a) { return a->size() >= static_cast<size_t>(count); });
}

bool noneNegativeAt(std::initializer_list<const std::vector<int>*> arrays, int index)
{
    return std::all_of(arrays.begin(), arrays.end(), [index](const std::vector<int>* a) { return (*a)[index] >= 0; });
}

bool checkBlockSizes(const PSR_INITPARAMS_T& layout, int camera, const char* source)
{
    const zqPSR_NONOVERLAP_BLOCK& nonoverlap = layout.nonoverlap_block[camera];
    const zqPSR_OVERLAP_BLOCK& overlap = layout.overlap_block[camera];
    const int n = nonoverlap.nonoverlap_num;
    const int o = overlap.overlap_num;
    if (!allHaveEntries({&nonoverlap.dst_startx, &nonoverlap.dst_width, &nonoverlap.mesh_width,
                         &nonoverlap.mesh_height}, n) ||
        !allHaveEntries({&overlap.band_num, &overlap.dst_startx, &overlap.dst_width, &overlap.mesh_width,
                         &overlap.mesh_height, &overlap.alpha_width, &overlap.alpha_height}, o)) {
        AVS_LOGE("%s: camera %d lists fewer block values than its block counts, FAILED!", source, camera);
        return false;
    }
    bool ok = true;
    for (int b = 0; b < n + o; ++b) {
        const bool sizesOk =
            b < n ? noneNegativeAt({&nonoverlap.dst_width, &nonoverlap.mesh_width, &nonoverlap.mesh_height}, b)
                  : noneNegativeAt({&overlap.band_num, &overlap.dst_width, &overlap.mesh_width, &overlap.mesh_height,
                                    &overlap.alpha_width, &overlap.alpha_height}, b - n);
        if (!sizesOk) {
            AVS_LOGE("%s: camera %d block %d has a negative size, FAILED!", source, camera, b);
            ok = false;
        }
    }
    return ok;
}

bool checkCameraBlocks(const PSR_INITPARAMS_T& layout, int camera, const char* source)
{
    const int n = layout.nonoverlap_block[camera].nonoverlap_num;
    const int o = layout.overlap_block[camera].overlap_num;
    const int declared = layout.image_block_num[camera];
    if (n < 0 || o < 0) {
        AVS_LOGE("%s: camera %d has nonoverlap_num=%d overlap_num=%d, FAILED!", source, camera, n, o);
        return false;
    }
    if (static_cast<int64_t>(n) + o > kMaxBlocksPerCamera) {
        AVS_LOGE("%s: camera %d has %lld blocks, at most %d are supported, FAILED!", source, camera,
                 static_cast<long long>(n) + o, kMaxBlocksPerCamera);
        return false;
    }
    // The mesh tables are sized by the declared count but indexed by the two counts.
    if (declared != n + o) {
        AVS_LOGE("%s: camera %d declares %d blocks but has nonoverlap_num=%d + overlap_num=%d, FAILED!", source,
                 camera, declared, n, o);
        return false;
    }
    return checkBlockSizes(layout, camera, source);
}

// ---- mesh tables ------------------------------------------------------------------------

void sizeMeshTables(const PSR_INITPARAMS_T& layout, inputMeshCoords* table)
{
    table->input_meshx.assign(layout.camera_num, {});
    table->input_meshy.assign(layout.camera_num, {});
    for (int c = 0; c < layout.camera_num; ++c) {
        table->input_meshx[c].assign(layout.image_block_num[c], nullptr);
        table->input_meshy[c].assign(layout.image_block_num[c], nullptr);
    }
}

// Calls `visit(camera, position, meshWidth, meshHeight)` for every block in mesh order: per
// camera its non-overlap blocks, then its overlap blocks (positions numbered on).
template <typename Visit>
void forEachBlock(const PSR_INITPARAMS_T& layout, Visit visit)
{
    for (int c = 0; c < layout.camera_num; ++c)
        for (const zqavs_calib_core::BlockView& block : zqavs_calib_core::cameraBlocks(layout, c))
            visit(c, block.position, block.mesh_width, block.mesh_height);
}

// Allocates and reads the x and y mesh of one block; both files are tried either way.
bool readBlockMeshes(const char* dir, int camera, int position, int meshWidth, int meshHeight,
                     inputMeshCoords* owned)
{
    const uint64_t bytes = static_cast<uint64_t>(meshWidth) * static_cast<uint64_t>(meshHeight) * sizeof(float);
    float* meshx = static_cast<float*>(malloc(bytes));
    float* meshy = static_cast<float*>(malloc(bytes));
    owned->input_meshx[camera][position] = meshx;
    owned->input_meshy[camera][position] = meshy;
    if (bytes > 0 && (meshx == nullptr || meshy == nullptr)) {
        AVS_LOGE("cannot allocate %llu bytes for the meshes of camera %d block %d, FAILED!",
                 static_cast<unsigned long long>(bytes), camera, position);
        return false;
    }
    const long length = static_cast<long>(bytes);
    const std::string path(dir);
    const bool xRead = readBinParamsAVS(path + meshFileName('x', camera, position), reinterpret_cast<char*>(meshx),
                                        length) != 0;
    const bool yRead = readBinParamsAVS(path + meshFileName('y', camera, position), reinterpret_cast<char*>(meshy),
                                        length) != 0;
    return xRead && yRead;
}

unsigned lowBits(const void* pointer)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
}

bool takeCallerMesh(const void* record, int index, int camera, int position, inputMeshCoords* used)
{
    const PSR_REMAP_MESH* mesh = static_cast<const PSR_REMAP_MESH*>(record);
    if (mesh == nullptr || mesh->meshxBufAddr_ == nullptr || mesh->meshyBufAddr_ == nullptr) {
        AVS_LOGE("avsRemapMeshArray[%d] (camera %d block %d) has no mesh buffers, FAILED!", index, camera, position);
        return false;
    }
    used->input_meshx[camera][position] = static_cast<float*>(mesh->meshxBufAddr_);
    AVS_LOGD("use_input_meshx[%d][%d]=%x\n", camera, position, lowBits(mesh->meshxBufAddr_));
    used->input_meshy[camera][position] = static_cast<float*>(mesh->meshyBufAddr_);
    AVS_LOGD("use_input_meshy[%d][%d]=%x\n", camera, position, lowBits(mesh->meshyBufAddr_));
    return true;
}

}  // namespace

void refreshCalibrationLogLevel()
{
    zqgfx_gpu_avs::UpdateAvsLogLevel();
}

int readTxtParamsAVS(std::string mesh_params_path, PSR_INITPARAMS_T* output_params)
{
    std::ifstream in(mesh_params_path);
    if (!in.is_open()) {
        std::cout << "Read failed:" << mesh_params_path << std::endl;
        return 0;
    }
    std::cout << "Read succeeded:" << mesh_params_path << std::endl;
    zqavs_calib_core::readParams(in, output_params);
    return 1;
}

int readBinParamsAVS(std::string image_path, char* output_params, long length)
{
    std::ifstream in(image_path, std::ios::binary);
    if (!in.is_open()) {
        std::cout << "open failed: " << image_path << std::endl;
        return 0;
    }
    in.read(output_params, length);
    // A short file is refused rather than leaving the tail of the mesh unwritten.
    if (in.gcount() < length) {
        AVS_LOGE("%s holds %ld bytes, %ld expected, FAILED!", image_path.c_str(), static_cast<long>(in.gcount()),
                 length);
        return 0;
    }
    return 1;
}

bool checkLayoutBlocks(const PSR_INITPARAMS_T& layout, const char* source)
{
    if (layout.camera_num < 0) {
        AVS_LOGE("%s: camera_num=%d is negative, FAILED!", source, layout.camera_num);
        return false;
    }
    const size_t described = std::min({layout.nonoverlap_block.size(), layout.overlap_block.size(),
                                       layout.image_block_num.size()});
    if (described < static_cast<size_t>(layout.camera_num)) {
        AVS_LOGE("%s describes %zu cameras but camera_num is %d, FAILED!", source, described, layout.camera_num);
        return false;
    }
    bool ok = true;
    for (int c = 0; c < layout.camera_num; ++c) ok = checkCameraBlocks(layout, c, source) && ok;
    return ok;
}

int read_files_and_init_params(ZQGFX_AVS_CONTEXT_T* mcontext, PSR_INITPARAMS_T* init_params_instance,
                               inputMeshCoords* owned, inputMeshCoords* used)
{
    if (mcontext == nullptr) {
        AVS_LOGE("input context is NULL, return FAILED!");
        return -1;
    }
    if (mcontext->meshFilePath == nullptr) {
        AVS_LOGE("meshFilePath is NULL, FAILED!");
        return -1;
    }
    PSR_INITPARAMS_T* layout = init_params_instance;
    const std::string paramsPath = std::string(mcontext->meshFilePath) + kParamsFileName;
    if (readTxtParamsAVS(paramsPath, layout) == 0) return -1;

    layout->output_image_stride = alignTo16(layout->bld_width);
    if (!buffersFit(*mcontext, *layout, "is not aligned with 16", __FUNCTION__)) return -1;
    layout->camera_num = static_cast<int>(mcontext->numView);
    layout->image_formate = PSR_TYPE_YUV420SP;
    layout->image_stride = layout->src_width;
    layout->useSync = mcontext->useSync;
    layout->use_gain = 0;
    layout->gain_step_x = 32;
    layout->gain_step_y = 64;
    if (!checkLayoutBlocks(*layout, paramsPath.c_str())) return -1;

    sizeMeshTables(*layout, owned);
    sizeMeshTables(*layout, used);
    bool allRead = true;
    forEachBlock(*layout, [&](int camera, int position, int meshWidth, int meshHeight) {
        allRead = readBlockMeshes(mcontext->meshFilePath, camera, position, meshWidth, meshHeight, owned) && allRead;
        used->input_meshx[camera][position] = owned->input_meshx[camera][position];
        used->input_meshy[camera][position] = owned->input_meshy[camera][position];
    });
    return allRead ? 0 : -1;
}

int get_mesh_and_init_params(ZQGFX_AVS_CONTEXT_T* mcontext, PSR_INITPARAMS_T* init_params_instance,
                             inputMeshCoords* used)
{
    if (mcontext == nullptr) {
        AVS_LOGE("input context is NULL, return FAILED!");
        return -1;
    }
    const PSR_INITPARAMS_T* callerLayout = static_cast<const PSR_INITPARAMS_T*>(mcontext->AVS_initParams);
    if (callerLayout == nullptr) {
        AVS_LOGE("input AVS_initParams is NULL, FAILED!");
        return -1;
    }
    PSR_INITPARAMS_T* layout = init_params_instance;
    *layout = *callerLayout;  // deep copy: the caller may release its record after init
    if (!buffersFit(*mcontext, *layout, "is illegal", __FUNCTION__)) return -1;
    if (!checkLayoutBlocks(*layout, kCallerLayoutName)) return -1;
    if (mcontext->avsRemapMeshArray == nullptr) {
        AVS_LOGE("avsRemapMeshArray is NULL, FAILED!");
        return -1;
    }

    sizeMeshTables(*layout, used);
    bool allTaken = true;
    int meshCount = 0;
    forEachBlock(*layout, [&](int camera, int position, int, int) {
        allTaken = takeCallerMesh(mcontext->avsRemapMeshArray[meshCount], meshCount, camera, position, used) &&
                   allTaken;
        ++meshCount;
    });
    return allTaken ? 0 : -1;
}
