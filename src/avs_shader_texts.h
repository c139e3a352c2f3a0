// GLSL ES 3.10 sources of both engines, defined beside the engine that builds them.
#ifndef ZQGFX_AVS_SHADER_TEXTS_H
#define ZQGFX_AVS_SHADER_TEXTS_H

namespace zqgfx_gpu_avs {

// Remap engine (src/gl_nv12_remap*.cpp). The two YUV-sampling texts and the RGB-to-YUV text need
// GL_EXT_YUV_target.
extern const char* const gRemapVertexShader;
extern const char* const gRemapFragmentShaderYUV;       // gProgram: YUV image in, YUV out
extern const char* const gRemapFragmentShaderRGB;       // gProgramRGB: YUV image in, RGB out
extern const char* const gRemapFragmentShaderRGBtoYUV;  // gProgramRGBtoYUV: RGB in, YUV out

// Blend engine (src/gles_multiband_blend*.cpp). Only gFragmentShader_blendYUV needs GL_EXT_YUV_target.
extern const char* const gVertexShader;
extern const char* const gFragmentShader;
extern const char* const gFragmentShader_lowest;
extern const char* const gFragmentShader_blend;
extern const char* const gFragmentShader_blendYUV;

// Portable path (src/portable_yuv_shaders.cpp): the same programs without GL_EXT_YUV_target. Camera
// images arrive as a luma texture (`outTexture`, unit 0) and a chroma texture (`outTextureUV`,
// unit 1); YUV targets are RGBA8 canvases holding (Y, Cb, Cr, 1). BT.601 full range in shader code.
extern const char* const gPortableRemapFragmentShaderYUV;
extern const char* const gPortableRemapFragmentShaderRGB;
extern const char* const gPortableRemapFragmentShaderRGBtoYUV;
extern const char* const gPortableFragmentShader_blendYUV;
extern const char* const gPortableFragmentShader_blendChroma;
extern const char* const gPortableRemapFragmentShaderChroma;

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_SHADER_TEXTS_H
