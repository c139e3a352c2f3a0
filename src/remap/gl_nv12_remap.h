// Remap engine: the thread's EGL context, the per-frame import of the caller's dma-bufs, the
// mesh vertex buffers and the remap passes that warp every camera block into the panorama.
#ifndef ZQGFX_AVS_GL_NV12_REMAP_H
#define ZQGFX_AVS_GL_NV12_REMAP_H

#include <cstdint>
#include <array>
#include <vector>

#include "calib_core/avs_calib_core.h"
#include "gl/common_resource.h"
#include "io/frame_io.h"
#include "gl/frame_counters.h"
#include "remap/remap_mesh_quads.h"
#include "zqgfx_gpu_avs.h"

namespace zqgfx_gpu_avs {

class PlaneIo;

using zqavs_calib_core::kMaxTextureSize;

// Slot of the import table for descriptor `fd`: the slot that already holds it or, failing that,
// the first free one (0); -1 when all kImportSlotCount slots hold other descriptors.
int findImportSlot(const GLuint* table, int fd);
// Deletes what an import slot holds: framebuffer then texture, or the texture alone.
void deleteImportSlotNames(const textureAndFboStatus& slot);

// Number of vertices of the triangle strip that draws a mesh of mesh_w x mesh_h nodes.
inline int stripVertexCount(int mesh_w, int mesh_h)
{
    return ((mesh_w - 1) * 2 + 1) * (mesh_h - 1) + 1;
}

// Every block of a camera has its own mesh index, camera * 10 + block (non-overlap blocks first,
// then the overlap blocks), so a camera has at most ten blocks.
using zqavs_calib_core::kMaxBlocksPerCamera;
inline int meshIndexOf(int cam, int block)
{
    return cam * kMaxBlocksPerCamera + block;
}

// True when the layout's per-camera lists cover camera_num cameras and every block list of a
// camera holds at least its block count (what the passes and set-up index).
bool layoutListsComplete(const PSR_INITPARAMS_T& layout);

// Placement of a resize to bld_w x bld_h, always computed from the `initial` layout: output size
// and stride of `resized`, its non-overlap blocks rescaled, and the seam windows (resize_*) of
// `resource` of every camera whose do_blend_array entry is at least 1, snapped onto the rescaled
// block edges. 0, or -1 (with an error line) when the inputs cannot be scaled.
int resizeLayout(const PSR_INITPARAMS_T& initial, const int* do_blend_array, int bld_w, int bld_h,
                 PSR_INITPARAMS_T* resized, multibandResource* resource);

class ZQGL_Remap;

// Target path: each NV12 buffer is one YUV image, sampled as an external texture and rendered
// whole through a framebuffer; the engine's import table holds the names.
class YuvImageIo final : public FrameIo {
public:
    explicit YuvImageIo(ZQGL_Remap& engine) : engine(engine) {}
    GpuPath path() const override { return GpuPath::target; }
    GLuint importInput(int slot, int fd, uint32_t isAfbc, int width, int height) override;
    int refreshInput(int) override { return 0; }  // the image is the caller's buffer itself
    bool bindInput(int slot, GLuint texture) const override;
    GLuint importOutput(int slot, int fd, uint32_t isAfbc, int width, int height, int stride,
                        GLuint* texture) override;
    OutputPlanes outputPlanes(int, GLuint fbo) const override { return wholeYuvOutput(fbo); }
    int finishOutput(int, const ColumnSpanList&) override { return 0; }  // the GPU wrote the buffer
    void releaseSlot(int slot, bool textureFirst) override;

private:
    ZQGL_Remap& engine;
};

class ZQGL_Remap {
public:
    ~ZQGL_Remap();

    // EGL context and programs
    int ZQ_EGL_Init(multibandResource* resource);
    int ZQ_EGL_Deinit();
    GLuint loadShader(GLenum shaderType, const char* pSource);
    GLuint createProgram(const char* pVertexSource, const char* pFragmentSource);
    int setupGraphicsTest(GLuint program, int w1, int h1, int w2, int h2);
    void checkEglError(const char* op, EGLBoolean returnVal);
    int dumpFboPixels(int inWindowWidth, int inWindowHeight, int inSize, char* formatName,
                      char* pPixelDataFront, int index);

    // per-frame import
    int create_texture_and_fbo(int* inputImageFd, uint32_t inputIsAFBC, uint32_t outputIsAFBC, GLuint* out_fbo);
    GLuint create_egl_texture(void* dpy, uint32_t is_afbc, int inputImgFd, int tex_width, int tex_height);
    GLuint create_fbo_output(void* dpy, uint32_t is_afbc, int memfd, int fbo_w, int fbo_h, uint32_t stride,
                             GLuint* Gtexturefbo);
    int destroy_texture_and_fbo();
    // Build slot `slot` for camera `cam`'s descriptor / for the output descriptor; 0 or -1.
    int importInputSlot(int cam, int slot, int fd, uint32_t inputIsAFBC);
    int importOutputSlot(int slot, int fd, uint32_t outputIsAFBC);

    // remap passes
    int glesRemapNonoverlapNew();
    int glesRemapOverlapNew();
    // Every output plane in turn: its non-overlap blocks, then `alsoOnPlane` (may be null) into the
    // same plane while it is bound, so that a blend drawn there costs no render pass of its own.
    // 0, or -1 at the first failure.
    using PlaneFollowUp = int (*)(void* context, const OutputPlane& plane);
    int drawOutputPlanes(PlaneFollowUp alsoOnPlane, void* context);
    // Binds camera `cam`'s image on texture unit 0 for the next draw; 0, or -1 on a GL error or
    // a camera without an imported image.
    int bindCameraTexture(int cam);
    int renderFrameNew(GLuint program, int mesh_w, int mesh_h, GLuint verVBO, GLuint texVBO);
    int glesRemapNonoverlapVBO();
    int glesRemapOverlapVBO();
    int renderFrameVBO(GLuint program, int mesh_w, int mesh_h, int index_offset, GLuint verVBO, GLuint texVBO);
    int outputOverlapRemap(unsigned char*, int, int, int, int, unsigned char*);
    int ZQGL_Output_Overlap();

    // set-up, update, resize
    int glesRemapInit(PSR_INITPARAMS_S* params, multibandResource* resource,
                      std::vector<std::vector<float*>> meshx, std::vector<std::vector<float*>> meshy);
    int glesRemapUpdate(PSR_INITPARAMS_S* params, multibandResource* resource,
                        std::vector<std::vector<float*>> meshx, std::vector<std::vector<float*>> meshy);
    int glesRemapResize(PSR_INITPARAMS_S* params, multibandResource* resource, int* do_blend_array, int bld_w,
                        int bld_h);

    // fences
    void* gles_create_sync();
    int gles_wait_sync(void* sync);

    // mesh vertices and their buffer cache
    void vertexesValuationStripNew(float* mesh_x, float* mesh_y, int step_x, int step_y, int mesh_width,
                                   int mesh_height, int offset, int dst_width, int dst_height, int src_width,
                                   int src_height, GLfloat* vertexes, GLfloat* texVertexes);
    int create_remap_VBO_by_mesh(std::vector<std::vector<float*>> meshx, std::vector<std::vector<float*>> meshy);
    int creatVbo(int index, float* meshx, float* meshy, int addr_offset, int mesh_w, int mesh_h, int step_x,
                 int step_y, int src_width, int src_height);
    RemapVboInfo* getVertexVboInfoByIndex(int index);
    RemapVboInfo* getTexVertexVboInfoByIndex(int index);
    bool deleteSpecificVboFromCache(std::vector<RemapVboInfo>* vboCachePtr, int index);
    void deleteCachedVbo();
    int glesRemapUpdateMesh(int index, int step_x, int step_y, int mesh_w, int mesh_h, void* meshx, void* meshy);

    // Ends the frame on the plane paths (read-back of the covered columns, or a wait for the
    // GPU); nothing to do on the target path, where the GPU wrote the caller's buffer directly.
    int finishOutputFrame();
    // Where this frame's output is drawn: the YUV image of `framebuffer0`, or its two planes.
    OutputPlanes outputPlanes() const;
    // The program that draws camera images into `plane`.
    GLuint outputProgram(const OutputPlane& plane) const { return plane.plane == 1 ? gProgramChroma : gProgram; }

    PSR_INITPARAMS_T _remap_init_params;
    EGLint majorVersion;
    EGLint minorVersion;
    EGLContext context;
    EGLSurface surface;
    EGLDisplay dpy;
    GLuint gProgram;
    GLuint gProgramRGB;
    GLuint gProgramRGBtoYUV;
    GLuint gProgramChroma;  // plane paths: gProgram writes luma, this one chroma; 0 on the target path
    EGLint nonoverlapFance;
    EGLint overlapFance;
    GLuint gvPositionHandle;
    GLuint gvTextureTexCoordsHandle;
    GLuint gvTextureSamplerHandle;
    GLuint gDstWidthHandle;
    GLuint gDstHeightHandle;
    GLuint gSrcWidthHandle;
    GLuint gSrcHeightHandle;
    GLuint framebuffer0;
    GLuint fbo_texture0;
    std::vector<GLuint> textureID;
    std::vector<std::vector<drmSharedFramebuffer>> overlapFramebuffer;
    GLfloat* gTriangleVertexes;
    GLfloat* gTexVertexes;
    GLfloat* nonoverlapVertexes;
    GLfloat* nonoverlapTexVertexes;
    GLfloat* overlapVertexes;
    GLfloat* overlapTexVertexes;
    GLuint nonoverlapVertexesVBO;
    GLuint nonoverlapTexVertexesVBO;
    GLuint overlapVertexesVBO;
    GLuint overlapTexVertexesVBO;
    std::vector<RemapVboInfo> vertexVboCache;
    std::vector<RemapVboInfo> texVertexVboCache;
    GLuint* cache_input_fd;
    std::vector<textureAndFboStatus> create_texture_fbo_status;
    GLuint vertexMultiBlendVBO;
    GLuint texVertexMultiBlendVBO;
    GLfloat* multiBlendVertexes;
    GLfloat* multiBlendTexVertexes;
    int const_blend_height;
    int const_blend_width;

    // The plane paths draw every block as one quad with its mesh in a texture (made with the
    // context when a plane path is chosen; empty on the target path, which draws the strips).
    MeshQuadRemap meshQuads;
    // Exposure compensation: the programs that apply gains, made when it is turned on (the mesh
    // quads' on the plane paths, twins of gProgram and gProgramRGB on the target path). False
    // when they cannot be made.
    bool createGainPrograms();
    // `program`, or its twin with camera `cam`'s gains set while compensation is on.
    GLuint compensatedProgram(GLuint program, int cam);
    // Camera `cam`'s gain matrix (see yuvGainMatrix) into *gain; false while compensation is off.
    bool cameraGain(int cam, std::array<GLfloat, 9>* gain) const;
    // This frame's work, kept in the shared record.
    FrameCounters& frameCounters();

    // How frames get in and out: as YUV images, the target path's way, which needs nothing
    // made, until ZQ_EGL_Init chooses a plane path and makes `planeIo`, which then owns what the
    // slots hold.
    FrameIo& frameIo();
    const FrameIo& frameIo() const;
    YuvImageIo yuvImageIo{*this};
    PlaneIo* planeIo;
    // Import slots of this frame: each camera's image, and the output.
    std::vector<int> cameraSlots;
    int outputSlot = -1;
    // The shared record given to glesRemapInit (not owned): the seam windows the frame blends.
    multibandResource* blendResource;

private:
    // Target path: the twins of gProgram and gProgramRGB with gains, and their gain uniforms.
    GlProgram gainPrograms[2];
    GLint gainLocations[2] = {};
    int drawNonoverlapBlocks(const OutputPlane& plane);
    int drawSeamSidesIntoAtlas();
    // Whatever an import slot holds goes, on either path; the table entry is left to the caller.
    void releaseImportSlot(int slot, bool textureFirst);
    int refreshInputSlot(int slot);
    int refuseImport(int slot);
    int setUpFrameIo(const AvsGpuCaps& caps);
};

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_GL_NV12_REMAP_H
