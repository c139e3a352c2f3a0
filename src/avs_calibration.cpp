// Calibration loading: the layout parameter file, the mesh files (file mode) and the caller's
// records (buffer mode).
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <iostream>

#include "DebugLog.h"
#include "common_resource.h"
#include "zqgfx_gpu_avs_internal.h"

using zqgfx_gpu_avs::alignTo16;

namespace {

const char* const kParamsFileName = "zq_ps_gpu_mesh_params.txt";
const char* const kMeshxPrefix = "zq_ps_gpu_meshx";
const char* const kMeshyPrefix = "zq_ps_gpu_meshy";
const char* const kCallerLayoutName = "AVS_initParams";

// ---- parameter file ---------------------------------------------------------------------

// Tokens end at every blank, so "label  5" has an empty second token and the value 0.
std::string firstToken(const std::string& line)
{
    return line.substr(0, line.find(' '));
}

int lineValue(const std::string& line)
{
    const size_t blank = line.find(' ');
    if (blank == std::string::npos) return 0;
    const size_t end = line.find(' ', blank + 1);
    return atoi(line.substr(blank + 1, end == std::string::npos ? std::string::npos : end - blank - 1).c_str());
}

// Lines inside a section are data whatever they hold; past the end of the file they read as 0.
int readDataLine(std::istream& in)
{
    std::string line;
    std::getline(in, line);
    return lineValue(line);
}

// Counts a camera cannot hold are not read block by block (the loader refuses such a camera),
// so a wild count cannot make the reader run on for billions of lines.
int blocksToRead(int count)
{
    return std::min(count, kMaxBlocksPerCamera);
}

void readCameraSection(std::istream& in, int blockCount, PSR_INITPARAMS_T* layout)
{
    layout->image_block_num.push_back(blockCount);
    zqPSR_NONOVERLAP_BLOCK nonoverlap;
    zqPSR_OVERLAP_BLOCK overlap;
    nonoverlap.nonoverlap_num = readDataLine(in);
    overlap.overlap_num = readDataLine(in);
    for (int b = 0; b < blocksToRead(nonoverlap.nonoverlap_num); ++b) {
        nonoverlap.dst_startx.push_back(readDataLine(in));
        nonoverlap.dst_width.push_back(readDataLine(in));
        nonoverlap.mesh_width.push_back(readDataLine(in));
        nonoverlap.mesh_height.push_back(readDataLine(in));
    }
    for (int b = 0; b < blocksToRead(overlap.overlap_num); ++b) {
        overlap.band_num.push_back(readDataLine(in));
        overlap.dst_startx.push_back(readDataLine(in));
        overlap.dst_width.push_back(readDataLine(in));
        overlap.mesh_width.push_back(readDataLine(in));
        overlap.mesh_height.push_back(readDataLine(in));
        overlap.alpha_width.push_back(readDataLine(in));
        overlap.alpha_height.push_back(readDataLine(in));
    }
    layout->nonoverlap_block.push_back(nonoverlap);
    layout->overlap_block.push_back(overlap);
}

void readGlobalSection(const std::string& firstLine, std::istream& in, PSR_INITPARAMS_T* layout)
{
    layout->src_width = lineValue(firstLine);
    layout->src_height = readDataLine(in);
    layout->bld_width = readDataLine(in);
    layout->bld_height = readDataLine(in);
    layout->step_x = readDataLine(in);
    layout->step_y = readDataLine(in);
}

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
    for (int c = 0; c < layout.camera_num; ++c) {
        const zqPSR_NONOVERLAP_BLOCK& nonoverlap = layout.nonoverlap_block[c];
        const zqPSR_OVERLAP_BLOCK& overlap = layout.overlap_block[c];
        for (int b = 0; b < nonoverlap.nonoverlap_num; ++b)
            visit(c, b, nonoverlap.mesh_width[b], nonoverlap.mesh_height[b]);
        for (int b = 0; b < overlap.overlap_num; ++b)
            visit(c, nonoverlap.nonoverlap_num + b, overlap.mesh_width[b], overlap.mesh_height[b]);
    }
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
    bool ok = readBinParamsAVS(meshFileName(dir, kMeshxPrefix, camera, position), reinterpret_cast<char*>(meshx),
                               length) != 0;
    ok = readBinParamsAVS(meshFileName(dir, kMeshyPrefix, camera, position), reinterpret_cast<char*>(meshy),
                          length) != 0 && ok;
    return ok;
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

std::string meshFileName(const char* meshFilePath, const char* prefix, int camera, int block)
{
    // Camera and block run together: camera 1 block 12 and camera 11 block 2 share a name.
    return std::string(meshFilePath) + prefix + std::to_string(camera) + std::to_string(block) + ".bin";
}

int readTxtParamsAVS(std::string mesh_params_path, PSR_INITPARAMS_T* output_params)
{
    std::ifstream in(mesh_params_path);
    if (!in.is_open()) {
        std::cout << "Read failed:" << mesh_params_path << std::endl;
        return 0;
    }
    std::cout << "Read succeeded:" << mesh_params_path << std::endl;
    int cameraSections = 0;
    std::string line;
    // A section-starting line that ends the file without a line break is not processed.
    while (std::getline(in, line) && !in.eof()) {
        if (!line.empty() && line[0] == '#') continue;
        if (firstToken(line) == "camera_" + std::to_string(cameraSections) + ":") {
            readCameraSection(in, lineValue(line), output_params);
            ++cameraSections;
        } else {
            readGlobalSection(line, in, output_params);
        }
    }
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
