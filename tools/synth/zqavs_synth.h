// zqavs_synth: synthetic calibrations and scenes for libzqgfx_avs.
//
// A virtual rig of 1..10 pinhole cameras on a cylinder looks at a known scene panorama. From a
// rig description the generator builds the stitching layout, the calibration meshes and the
// alpha maps (in the library's file and buffer formats), renders each camera's NV12 image and
// the panorama the library should produce, and offers the metrics the tests compare them with.
//
// Conventions used throughout:
// - pixel index coordinates: pixel (i, j) has its centre at (i, j); the edge coordinate of the
//   same point is index + 0.5;
// - images are stored top row first, and mesh row 0 feeds output row 0;
// - colour conversion is BT.601 full range with chroma centred on 128.
// Nothing here uses GL.
#ifndef ZQAVS_SYNTH_H
#define ZQAVS_SYNTH_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "avs_calib_core.h"
#include "zqgfx_gpu_avs.h"

namespace zqavs_synth {

// The calibration's own types, names and formats come from the calibration core.
using zqavs_calib_core::AlphaMap;
using zqavs_calib_core::AlphaType;
using zqavs_calib_core::BlockMesh;
using zqavs_calib_core::alphaElementCount;
using zqavs_calib_core::alphaFileName;
using zqavs_calib_core::findFileNameCollision;
using zqavs_calib_core::meshFileName;
using zqavs_calib_core::paramsFileText;

enum class SeamProfile { LinearRamp, Step };

// 8-bit interleaved RGB, rows back to back.
struct RgbImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;
};

struct RigConfig {
    int cameras = 4;
    int src_width = 1280;
    int src_height = 720;
    int bld_width = 4096;
    int bld_height = 720;
    int step_x = 16;
    int step_y = 16;
    int band_num = 4;                 // the layout's value; the blend runs band_num + 1 levels
    AlphaType alpha_type = AlphaType::U8;
    int overlap_width = 128;
    std::vector<double> gains;        // per camera exposure gain; empty means all 1.0
    std::vector<double> casts;        // per camera R, G, B factors (a white-balance cast), 3 per
                                      // camera one after the other; empty means none
    SeamProfile seam_profile = SeamProfile::LinearRamp;
    double hfov_deg = 0.0;            // field of view of the whole panorama; 0 picks 40 per camera
    double edge_margin_px = 4.0;      // mesh nodes stay this far inside the camera image
    RgbImage scene_image;             // empty: the built-in pattern; else resized to the panorama
};

// An empty string when the rig can be generated, else the first problem found.
std::string validateRig(const RigConfig& rig);

int roundUp16(int value);
int nv12Stride(int width);            // width rounded up to 16
size_t nv12Bytes(int width, int height);

// ---- layout -------------------------------------------------------------------------------

// Overlap region shared by camera `left` (side A) and camera `left` + 1 (side B).
struct Seam {
    int left_camera = 0;
    int right_camera = 0;
    int startx = 0;
    int width = 0;
};

// The stitching layout of a rig (strides, format, gain fields set as the library's file reader
// sets them; useSync 0). Call on a validated rig.
PSR_INITPARAMS_T buildLayout(const RigConfig& rig);
// Seams of the rig in camera order; every one of them is blended.
std::vector<Seam> buildSeams(const RigConfig& rig);
// Columns [first, last) that camera `camera`'s blocks cover.
void cameraColumnRange(const PSR_INITPARAMS_T& layout, int camera, int* first, int* last);
// 1 for every panorama column some block covers.
std::vector<uint8_t> coveredColumns(const PSR_INITPARAMS_T& layout);

// ---- geometry -----------------------------------------------------------------------------

struct CameraModel {
    double yaw = 0.0;     // radians, optical axis azimuth on the cylinder
    double focal = 0.0;   // pixels
    double cx = 0.0;      // principal point, edge coordinates
    double cy = 0.0;
};

struct RigGeometry {
    int bld_width = 0;
    int bld_height = 0;
    double hfov = 0.0;        // radians spanned by the panorama's width
    double pano_fx = 0.0;     // panorama columns per radian of azimuth
    double pano_fy = 0.0;     // panorama rows per unit of cylinder height
    std::vector<CameraModel> cameras;
};

RigGeometry buildGeometry(const RigConfig& rig, const PSR_INITPARAMS_T& layout);
// Pixel index coordinates both ways; false when the point is behind or beside the camera.
bool panoramaToCamera(const RigGeometry& geo, int camera, double px, double py, double* sx, double* sy);
void cameraToPanorama(const RigGeometry& geo, int camera, double sx, double sy, double* px, double* py);

// Mesh of one block whose first column is dst_startx: node (c, r) holds the source position
// sampled by the output point at edge coordinate (dst_startx + c * step_x, r * step_y).
BlockMesh buildBlockMesh(const RigGeometry& geo, int camera, int dst_startx, int mesh_width,
                         int mesh_height, int step_x, int step_y);

// ---- alpha maps ---------------------------------------------------------------------------

struct LevelSize {
    int width;
    int height;
};
// Level l is (W / 2^l) x (H / 2^l), truncated; finest first.
std::vector<LevelSize> alphaLevelSizes(int width, int height, int levels);

// Level 0 is the profile across the seam; each coarser level is the 2x2 box reduction of the
// level above it (an odd last column or row is dropped).
AlphaMap buildAlphaMap(int camera, int next, int width, int height, int levels, AlphaType type,
                       SeamProfile profile);
// The same from any finest level: `finest` holds side A's weight (0..1) of each of its
// width x height elements, row by row.
struct AlphaSeam {
    int camera = 0;   // side A
    int next = 0;     // side B
    int width = 0;
    int height = 0;
    int levels = 0;
};
AlphaMap buildAlphaMap(const AlphaSeam& seam, AlphaType type, std::vector<double> finest);

// ---- calibration --------------------------------------------------------------------------

struct Calibration {
    RigConfig rig;
    PSR_INITPARAMS_T layout;
    std::vector<Seam> seams;
    RigGeometry geometry;
    std::vector<std::vector<BlockMesh>> meshes;   // per camera, non-overlap blocks then overlap
    std::vector<AlphaMap> alphas;                 // one per seam, in seam order
};

// False (and *error set) when the rig is invalid.
bool generateCalibration(const RigConfig& rig, Calibration* out, std::string* error);

// ---- images -------------------------------------------------------------------------------

// Non-owning view of an NV12 image: luma rows of `stride` bytes, then the interleaved CbCr
// plane (height / 2 rows of the same stride).
struct Nv12View {
    const uint8_t* data = nullptr;
    int width = 0;
    int height = 0;
    int stride = 0;

    uint8_t y(int x, int row) const { return data[static_cast<size_t>(row) * stride + x]; }
    const uint8_t* chroma() const { return data + static_cast<size_t>(stride) * height; }
    // Chroma sample of the 2x2 block (cx, cy).
    uint8_t cb(int cx, int cy) const { return chroma()[static_cast<size_t>(cy) * stride + 2 * cx]; }
    uint8_t cr(int cx, int cy) const { return chroma()[static_cast<size_t>(cy) * stride + 2 * cx + 1]; }
};

struct Nv12Image {
    int width = 0;
    int height = 0;
    int stride = 0;
    std::vector<uint8_t> data;

    Nv12View view() const { return {data.data(), width, height, stride}; }
};

// The built-in scene: smooth gradients, a grid, circles of several sizes and colour areas.
RgbImage makeBuiltinScene(int width, int height);
RgbImage resizeRgb(const RgbImage& source, int width, int height);   // bilinear
// The rig's scene: its own image resized to the panorama, or the built-in one.
RgbImage makeScene(const RigConfig& rig);

// What camera `camera` sees of the scene, with its exposure gain applied to RGB.
Nv12Image renderCamera(const Calibration& calib, int camera, const RgbImage& scene);
// BT.601 full range; chroma is the 2x2 average.
Nv12Image rgbToNv12(const RgbImage& image);
RgbImage nv12ToRgb(const Nv12View& image);

struct Yuv {
    double y, cb, cr;
};
Yuv rgbToYuv(double r, double g, double b);   // 0..255 in and out

// ---- metrics ------------------------------------------------------------------------------

struct PlaneView {
    const uint8_t* data = nullptr;
    int width = 0;
    int height = 0;
    int stride = 0;

    uint8_t at(int x, int row) const { return data[static_cast<size_t>(row) * stride + x]; }
};
PlaneView lumaPlane(const Nv12View& image);

// PSNR (dB, peak 255) over the columns whose mask entry is nonzero (an empty mask takes all);
// +infinity for identical planes, NaN when the sizes differ or no column is taken.
double psnr(const PlaneView& actual, const PlaneView& expected, const std::vector<uint8_t>& columnMask);

// ---- shared memory ------------------------------------------------------------------------

// Anonymous memory with both a descriptor and a mapping (memfd), released on destruction.
class SharedBuffer {
public:
    SharedBuffer() = default;
    ~SharedBuffer();
    SharedBuffer(SharedBuffer&& other) noexcept;
    SharedBuffer& operator=(SharedBuffer&& other) noexcept;
    SharedBuffer(const SharedBuffer&) = delete;
    SharedBuffer& operator=(const SharedBuffer&) = delete;

    // False (and *error set) when the memory cannot be made.
    bool allocate(size_t bytes, const char* name, std::string* error);
    bool valid() const { return addr_ != nullptr; }
    int fd() const { return fd_; }
    uint8_t* data() const { return static_cast<uint8_t*>(addr_); }
    size_t size() const { return size_; }

private:
    void release();
    int fd_ = -1;
    void* addr_ = nullptr;
    size_t size_ = 0;
};

// An NV12 buffer of nv12Bytes(width, height), optionally filled from an image of that size.
bool allocateNv12(int width, int height, SharedBuffer* out, std::string* error);
bool allocateNv12(const Nv12Image& image, SharedBuffer* out, std::string* error);
Nv12View nv12View(const SharedBuffer& buffer, int width, int height);

// ---- context, files and buffer mode -------------------------------------------------------

// Sizes, camera count, alpha type and sync of a context for the rig; file mode, no paths or
// descriptors yet.
ZQGFX_AVS_CONTEXT_T makeContext(const RigConfig& rig, bool useSync);

// Parameter file, mesh files and alpha files into `dir` (created when missing), all or nothing.
bool writeCalibration(const Calibration& calib, const std::string& dir, std::string* error);
// "camera<i>.nv12" per camera (rows of the image's stride, chroma after luma).
bool writeCameraImages(const std::vector<Nv12Image>& cameras, const std::string& dir, std::string* error);
bool writeRawRgb(const RgbImage& image, const std::string& path, std::string* error);

// The calibration as caller buffers: the layout, one mesh record per block in mesh order
// (pointing at meshes this object owns) and one memfd alpha buffer per blended seam.
class BufferModeCalibration {
public:
    BufferModeCalibration() = default;
    BufferModeCalibration(BufferModeCalibration&&) = default;
    BufferModeCalibration& operator=(BufferModeCalibration&&) = default;
    BufferModeCalibration(const BufferModeCalibration&) = delete;
    BufferModeCalibration& operator=(const BufferModeCalibration&) = delete;

    bool build(const Calibration& calib, bool useSync, std::string* error);
    // Switches the context to buffer mode and points it at this object's records (so attach
    // after the object has reached its final place).
    void attach(ZQGFX_AVS_CONTEXT_T* context);

    PSR_INITPARAMS_T init_params;
    std::vector<PSR_REMAP_MESH> meshes;
    std::vector<void*> mesh_pointers;
    std::vector<SharedBuffer> alpha_buffers;
    std::vector<PSR_DRM_BUF_MSG_T> alpha_records;
    std::vector<void*> alpha_pointers;
    AlphaType alpha_type = AlphaType::U8;

private:
    std::vector<std::vector<float>> mesh_storage_;   // x, y, x, y, ... per block
};

}  // namespace zqavs_synth

#endif  // ZQAVS_SYNTH_H
