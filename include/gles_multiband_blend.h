// Multiband blend engine and the record it shares with the remap engine and the entry points.
#ifndef ZQGFX_AVS_GLES_MULTIBAND_BLEND_H
#define ZQGFX_AVS_GLES_MULTIBAND_BLEND_H

#include <cstdint>
#include <vector>

#include "common_resource.h"
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
    AvsGpuCaps caps;
};

// Level l of a pyramid whose level 0 is `size` wide or high: size / 2^l, truncated.
inline int pyramidLevelSize(int size, int level)
{
    return static_cast<int>(size / static_cast<double>(1u << level));
}

class zqglMultibandBlend {
public:
    ~zqglMultibandBlend();
    int initMultibandBlend(multibandResource* init_resource, int* do_blend_array);
    int glesMultibandDrawGauss(int* do_blend_array);
    int glesMultibandBlend(GLuint out_fbo, int* do_blend_array);
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

    friend struct BlendEngineTestAccess;  // tests inspect the pyramids
};

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_GLES_MULTIBAND_BLEND_H
