// Multiband blend engine and the record it shares with the remap engine and the entry points.
#ifndef ZQGFX_AVS_GLES_MULTIBAND_BLEND_H
#define ZQGFX_AVS_GLES_MULTIBAND_BLEND_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "gl/common_resource.h"
#include "blend/exposure_compensation.h"
#include "gl/frame_counters.h"
#include "blend/seam_atlas.h"
#include "zqgfx_gpu_avs.h"

namespace zqgfx_gpu_avs {

// The blend layout of one instance. A seam is the overlap of camera i with camera i + 1 (camera 0
// after the last); its data are stored at index i. Scalars are written before they are read (the
// record is not zero-filled on creation).
struct multibandResource {
    EGLContext context;
    EGLSurface surface;
    EGLDisplay dpy;
    std::vector<std::vector<drmSharedFramebuffer>> overlap_remap_fbo;
    std::vector<int32_t> overlap_num;
    int32_t cameraNum;
    int32_t bld_width;
    int32_t bld_height;
    std::vector<std::vector<int32_t>> alpha_width;
    std::vector<std::vector<int32_t>> alpha_height;
    std::vector<std::vector<int32_t>> band_num;
    std::vector<std::vector<int32_t>> overlap_startx;
    std::vector<int32_t> multi_band_num;
    std::vector<int32_t> output_width;
    std::vector<int32_t> output_height;
    std::vector<int32_t> output_startx;
    std::vector<int32_t> resize_width;
    std::vector<int32_t> resize_height;
    std::vector<int32_t> resize_startx;
    char* meshFilePath;
    uint32_t useSync;
    uint32_t outputIsAFBC;
    int32_t avsFuseType;
    int32_t avsAlphaType;
    uint32_t useMeshBufAddress;
    void** meshAlphaDrmBufMsgArray;

    // Driver capabilities and the path chosen, written by ZQ_EGL_Init; read by both engines.
    AvsGpuCaps caps{};
    // Plane paths: the blend engine's seam atlas, which the remap draws the seams' sides into.
    SeamAtlas* seamAtlas = nullptr;
    // The blend engine's exposure compensation, whose gains the remap applies.
    ExposureCompensation* compensation = nullptr;
    // The work of the frame in flight (or the last one), for the profiling hook.
    FrameCounters counters;
};

// The frame counters of `resource`; an engine used without a record counts into a spare of its
// thread's.
inline FrameCounters& frameCountersOf(multibandResource* resource)
{
    thread_local FrameCounters unshared;
    return resource != nullptr ? resource->counters : unshared;
}

// Level l of a pyramid whose level 0 is `size` wide or high: size / 2^l, truncated.
inline int pyramidLevelSize(int size, int level)
{
    return static_cast<int>(size / static_cast<double>(1u << level));
}

// The camera on the other side of seam `camera`: the next one, camera 0 after the last.
inline int seamNextCamera(int camera, int cameraCount)
{
    return camera + 1 < cameraCount ? camera + 1 : 0;
}

// Alpha map geometry (CPU only). A seam's alpha map holds its levels finest first, back to back:
// level l has height / 2^l rows of width / 2^l elements.
// Element offset of level `level` (the size of the finer levels before it).
int alphaLevelOffset(int width, int height, int level);
// Elements of a whole map of `levels` levels.
inline int alphaBufferLength(int width, int height, int levels)
{
    return alphaLevelOffset(width, height, levels);
}
// U8 levels this wide or wider are imported from the alpha buffer; narrower ones and all float
// levels are uploaded from CPU memory.
constexpr int kAlphaImportMinWidth = 64;
bool alphaLevelImported(int avsAlphaType, int levelWidth);
// Bytes GL reads for a w x h single-byte upload at the default unpack alignment of 4: every row but
// the last starts on a 4-byte boundary.
size_t unpackAlignedReadBytes(int w, int h);
// Bytes from the start of a seam's alpha map that its uploads and imports read: the end of the
// furthest level, with `textureHeight` (the panorama height) deciding the rows each level reads.
size_t alphaReadExtentBytes(int width, int height, int textureHeight, int levels, int avsAlphaType);

class zqglMultibandBlend {
public:
    ~zqglMultibandBlend();
    int initMultibandBlend(multibandResource* init_resource, int* do_blend_array);
    int glesMultibandDrawGauss(int* do_blend_array);
    int glesMultibandBlend(GLuint out_fbo, int* do_blend_array);
    // The same into `out`'s planes: the finest level is drawn once per plane.
    int glesMultibandBlend(const OutputPlanes& out, int* do_blend_array);
    // Plane paths, for a frame whose finest level shares the output's passes with the remap:
    // the collapse down to level 1, then level 0 of every seam into one bound output plane.
    int collapseSeams();
    int blendSeamsIntoPlane(const OutputPlane& plane);
    int updateMultibandBlend(multibandResource* init_resource, int* do_blend_array);
    int updateMultibandAlpha(int* do_blend_array);
    int deinitMultibandBlend(int* do_blend_array);

private:
    GLuint loadShader(GLenum shaderType, const char* pSource);
    GLuint createProgram(const char* pVertexSource, const char* pFragmentSource);
    int setupGraphics();
    void get_program_handle(GLuint program);
    void get_prog_lowest_handle(GLuint program);
    void get_prog_blend_handle(GLuint program);
    int renderFrame();
    int dumpPixels_new(int index, int inWindowWidth, int inWindowHeight, char* pPixelDataFront,
                       const char* format, int size);
    int draw_gauss_multi_texture(int multiNum, drmSharedFramebuffer* gaussFboAttr, int multiW, int multiH);
    GLuint create_alpha_texture(EGLDisplay dpy, int tex_fd, int tex_width, int tex_height, int plane_offset);
    int create_multi_fbo_and_texture_test(int camera_num, std::vector<GLuint*>& textureID,
                                          std::vector<GLuint*>& fboID, std::vector<int32_t>& mutiW,
                                          std::vector<int32_t>& mutiH, int* do_blend_array);
    int create_multi_fbo_and_texture(int camera_num, std::vector<drmSharedFramebuffer*>& gaussFboArray,
                                     std::vector<int32_t>& mutiW, int mutiH, int* do_blend_array);
    int create_muti_alpha_texture_test(int camera_num, std::vector<drmSharedFramebuffer*>& textureID,
                                       std::vector<int32_t>& mutiW, std::vector<int32_t>& mutiH,
                                       void** meshAlphaBufArray, int* do_blend_array);
    int init_multibandBlend_resource(multibandResource* init_resource, int* do_blend_array);
    void delete_multibandBlend_resource(int* do_blend_array);

    multibandResource* _multiResource;
    int32_t cameraNum;
    int32_t bld_width;
    int32_t bld_height;
    uint32_t multiUseSync;
    uint32_t outputAFBC;
    uint32_t useAlphaBufAddress;
    EGLDisplay dpy_multiband;
    EGLContext context_multiband;
    EGLSurface surface_multiband;

    GLuint gProgram;
    GLuint gProgramYUV;
    GLuint gvPositionHandle;
    GLuint gvTextureTexCoordsHandle;
    GLuint gvTextureSamplerHandle;
    GLuint gProgram_blend;
    GLuint gProgram_blendYUV;
    GLuint gProgram_blendChroma;  // plane paths: the finest level into the chroma plane; 0 otherwise
    GLuint gtexGaussA_n0_SamplerHandle_blend;
    GLuint gtexGaussB_n0_SamplerHandle_blend;
    GLuint gtexGaussA_n1_SamplerHandle_blend;
    GLuint gtexGaussB_n1_SamplerHandle_blend;
    GLuint gtexResult_n1_SamplerHandle_blend;
    GLuint gtexAlphaSamplerHandle_blend;
    GLuint gProgram_lowest;
    GLuint gProgram_lowestYUV;
    GLuint gtexGaussASamplerHandle_lowest;
    GLuint gtexGaussBSamplerHandle_lowest;
    GLuint gtexAlphaSamplerHandle_lowest;

    std::vector<std::vector<GLuint>> readFileTexID;
    std::vector<std::vector<GLuint>> readFileFboID;
    std::vector<drmSharedFramebuffer*> gaussFboAttrA;
    std::vector<drmSharedFramebuffer*> gaussFboAttrB;
    std::vector<drmSharedFramebuffer*> outFboAttr;
    std::vector<drmSharedFramebuffer*> alphaAttr;
    std::vector<PSR_DRM_BUF_MSG_S> alphaBufferFdArray;

    // Where one seam's alpha map lies while its levels are created.
    struct AlphaSeamSource {
        uint8_t* data;          // the file buffer or the caller's vir_addr
        int elementOffset;      // the caller's mem_offset in elements (0 for files)
        uint8_t* base;          // first byte of the map: data + elementOffset elements
        size_t readableBytes;   // bytes from base that GL may be let read
        int importFd;           // dma-buf holding the map, for zero-copy levels
        int importOffset;       // byte offset of base within that dma-buf
        uint8_t* heapBuffer;    // float map read from a file, freed once uploaded
    };
    // A U8 level whose aligned upload would read past the caller's alpha map goes through a
    // library-owned copy, zero beyond the caller's bytes. vir_addr keeps the caller's address.
    struct PaddedAlphaLevel {
        int camera;
        int level;
        const uint8_t* source;
        size_t sourceBytes;
        std::vector<uint8_t> bytes;
    };

    static constexpr GLsizei kQuadVertexCount = 6;  // two triangles covering the viewport
    bool bindQuadAttributes(bool checkEach);
    bool recordCoversCameras(const multibandResource* resource, int* do_blend_array);
    bool fillSeamBaseLevels(int camera);
    int bindBlendTarget(int camera, int level, const OutputPlane& out);
    int useLowestLevelInputs(int camera, int level);
    void countBlendDraw(int camera, int level, const OutputPlane& out);
    // `plane`: the output plane a level-0 draw writes (1 chroma; anything else the whole image or luma).
    int useBlendLevelInputs(int camera, int level, int plane);
    int createColourLevel(drmSharedFramebuffer& level, int index, int w, int h);
    int createSharedColourLevel(drmSharedFramebuffer& level);
    bool createPlainColourLevel(drmSharedFramebuffer& level);
    void releaseColourLevel(drmSharedFramebuffer& level);
    int readAlphaFile(int camera, int length, size_t bytes, AlphaSeamSource& source);
    int takeCallerAlpha(void** meshAlphaBufArray, int taken, int camera, int length, AlphaSeamSource& source);
    int createAlphaLevel(int camera, int level, int mapWidth, int mapHeight, const AlphaSeamSource& source,
                         drmSharedFramebuffer& element);
    const uint8_t* paddedAlphaBytes(int camera, int level, const uint8_t* pixels, size_t readBytes,
                                    size_t availableBytes);
    const uint8_t* alphaUploadBytes(int camera, int level, const uint8_t* pixels);
    void deleteAlphaTextures(int camera, int levels);

    std::vector<PaddedAlphaLevel> paddedAlphaLevels;

    // Portable path: no shared buffers (level 2 and U8 alpha levels are plain textures, uploaded);
    // the U8 alpha maps read from files are held here, per camera, for the life of the pyramids.
    bool portablePath() const;
    bool alphaLevelShared(int levelWidth) const;
    std::vector<std::vector<uint8_t>> alphaFileBytes;
    // Plane paths: all seams' pyramids and alpha levels, one target per level.
    SeamAtlas seamAtlas;
    std::vector<SeamAtlas::Window> seamWindows;  // per camera, refreshed every frame
public:
    // Measured on the seam atlas; its GL objects live until deinitMultibandBlend.
    ExposureCompensation compensation;
    // Plane paths: a finished measurement in before the frame's remap, the next one queued after
    // its pyramid. Neither waits for the GPU.
    void collectExposure() { compensation.collect(measuredLayout()); }
    bool measureExposure() { return !compensation.active() || compensation.measure(exposureSource()); }
private:
    // Where every seam's Gaussian levels lie: the atlas's own layout on the plane paths, the same
    // plan laid over the per-seam pyramids on the target path.
    const SeamAtlasLayout& measuredLayout() const { return portablePath() ? seamAtlas.layout() : seamLayout; }
    ExposureCompensation::Source exposureSource() const;
    bool seamShapes(const int* do_blend_array, std::vector<SeamShape>* shapes) const;
    int planSeamLayout(const int* do_blend_array);
    SeamAtlasLayout seamLayout;
    int createSeamAtlas(int* do_blend_array);
    FrameCounters& frameCounters();

    friend struct BlendEngineTestAccess;  // tests inspect the pyramids
};

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_GLES_MULTIBAND_BLEND_H
