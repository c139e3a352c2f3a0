// The calibration core: what a calibration directory is, free of GL. One parameter-file reader,
// one blend planner, the file names, the limits and an all-or-nothing writer, shared by the
// library, `zqavs check`, the synthetic generator and `zqavs calib`.
#ifndef AVS_CALIB_CORE_H
#define AVS_CALIB_CORE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "zqgfx_gpu_avs.h"

namespace zqavs_calib_core {

// ---- limits -----------------------------------------------------------------------------

constexpr int kMaxCameras = 10;
// The engines name a block camera * 10 + block, so a camera holds at most ten blocks.
constexpr int kMaxBlocksPerCamera = 10;
constexpr int kMaxTextureSize = 16384;

// ---- file names -------------------------------------------------------------------------

constexpr char kParamsFileName[] = "zq_ps_gpu_mesh_params.txt";
// Camera and block run together: camera 1 block 12 and camera 11 block 2 share a name.
std::string meshFileName(char axis, int camera, int block);
// The alpha map of the seam between `camera` and `next`.
std::string alphaFileName(int camera, int next);
// An empty string when no two block files or alpha files of the layout share a name.
std::string findFileNameCollision(const PSR_INITPARAMS_T& layout);

// ---- layout access ----------------------------------------------------------------------

// One block of a camera; the alpha and band fields belong to overlap blocks only.
struct BlockView {
    int position = 0;  // non-overlap blocks first, overlap blocks numbered on
    bool overlap = false;
    int dst_startx = 0, dst_width = 0, mesh_width = 0, mesh_height = 0;
    int band_num = 0, alpha_width = 0, alpha_height = 0;
};
// The blocks of camera `camera` in mesh order, as far as its counts and value arrays both reach
// (a negative count gives none).
std::vector<BlockView> cameraBlocks(const PSR_INITPARAMS_T& layout, int camera);

// A layout of `cameras` cameras with no blocks yet: sizes and steps as given, the other fields
// as the library's file reader completes them (NV12, tight strides, no gain, no fences).
struct LayoutSizes {
    int cameras = 0, src_width = 0, src_height = 0, bld_width = 0, bld_height = 0, step_x = 16, step_y = 16;
};
PSR_INITPARAMS_T emptyLayout(const LayoutSizes& sizes);

// Appends a full-height block of `width` columns from `startx` to a camera's record, with the
// mesh a `step_x` x `step_y` grid needs (one node more than steps each way).
struct MeshGrid {
    int step_x = 16, step_y = 16, height = 0;   // height: the panorama's rows
};
void appendNonoverlapBlock(PSR_NONOVERLAP_BLOCK* block, int startx, int width, const MeshGrid& grid);
// An overlap block also carries its blend window: `bands` and an alpha map of the block's size.
void appendOverlapBlock(PSR_OVERLAP_BLOCK* block, int startx, int width, int bands, const MeshGrid& grid);

// ---- parameter file ---------------------------------------------------------------------

struct ParamsDiagnostic {
    enum Severity { Error, Warning };
    Severity severity;
    int line;  // 1-based
    std::string message;
};
using ParamsDiagnostics = std::function<void(const ParamsDiagnostic&)>;

// Where the sections were found (1-based lines).
struct ParamsSections {
    int globalSections = 0;
    std::vector<int> cameraLines;  // each camera section's header
};

// Reads a parameter file as the library does: appends one entry per camera section to the
// layout's arrays and overwrites the six global fields. Every line that does not mean what it
// seems to is reported through `diagnose` (when set); reading goes on regardless.
ParamsSections readParams(std::istream& in, PSR_INITPARAMS_T* layout, const ParamsDiagnostics& diagnose = nullptr);

// The parameter file's text for the layout's first camera_num cameras.
std::string paramsFileText(const PSR_INITPARAMS_T& layout);

// ---- blend planning ---------------------------------------------------------------------

// Whether camera `camera`'s seam with its right-hand neighbour is blended, and why. A blended
// seam takes its strip from overlap block `sourceBlock` of camera `sourceCamera`.
struct SeamPlan {
    int camera = 0;
    int neighbour = 0;
    bool blended = false;
    int sourceCamera = -1;
    int sourceBlock = -1;
    int startx = 0, width = 0, height = 0;
    int levels = 0;  // pyramid levels: the block's band_num + 1
    std::string reason;
};
// One plan per camera of the first `cameras` cameras. Reads only overlap counts and the first
// two overlap blocks of each camera, which the layout must hold.
std::vector<SeamPlan> planSeams(const PSR_INITPARAMS_T& layout, int cameras);

// ---- meshes and alpha maps --------------------------------------------------------------

enum class AlphaType { U8, Float };

struct BlockMesh {
    int width = 0;    // nodes per row
    int height = 0;   // rows
    std::vector<float> x;
    std::vector<float> y;
};

// The levels of one seam's alpha map back to back (U8: 255 = side A; float: 1.0 = side A).
struct AlphaMap {
    int camera = 0;   // side A
    int next = 0;     // side B
    int width = 0;
    int height = 0;
    int levels = 0;
    AlphaType type = AlphaType::U8;
    std::vector<uint8_t> bytes;   // the file content
};

// Elements of an alpha map whose level l is (W >> l) x (H >> l), finest first.
size_t alphaElementCount(int width, int height, int levels);

// ---- writing ----------------------------------------------------------------------------

struct NamedFile {
    std::string name;   // a plain file name
    std::string bytes;
};

// The parameter file, the mesh files (meshes[camera][position]), the alpha files and
// `extraFiles` into `dir` (created when missing). All or nothing: the files are written into a
// staging directory beside `dir` and moved in only when every one was written; on failure
// `dir` keeps what it held and *error says why.
bool writeCalibrationDir(const std::string& dir, const PSR_INITPARAMS_T& layout,
                         const std::vector<std::vector<BlockMesh>>& meshes, const std::vector<AlphaMap>& alphas,
                         const std::vector<NamedFile>& extraFiles, std::string* error);

// ---- text -------------------------------------------------------------------------------

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace zqavs_calib_core

#endif  // AVS_CALIB_CORE_H
