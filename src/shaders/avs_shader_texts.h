// GLSL ES 3.10 sources of both engines. Each lives in its own file in this folder (texts.txt
// lists them); the build composes them and defines these variables in a generated file.
#ifndef ZQGFX_AVS_SHADER_TEXTS_H
#define ZQGFX_AVS_SHADER_TEXTS_H

namespace zqgfx_gpu_avs {

// Remap engine (remap/gl_nv12_remap*.cpp). The two YUV-sampling texts and the RGB-to-YUV text need
// GL_EXT_YUV_target.
extern const char* const gRemapVertexShader;
extern const char* const gRemapFragmentShaderYUV;       // gProgram: YUV image in, YUV out
extern const char* const gRemapFragmentShaderRGB;       // gProgramRGB: YUV image in, RGB out
extern const char* const gRemapFragmentShaderRGBtoYUV;  // gProgramRGBtoYUV: RGB in, YUV out
// Twins of the first two that apply exposure compensation (uniform mat3 yuvGain).
extern const char* const gRemapGainFragmentShaderYUV;
extern const char* const gRemapGainFragmentShaderRGB;

// Blend engine (blend/gles_multiband_blend*.cpp). Only gFragmentShader_blendYUV needs GL_EXT_YUV_target.
extern const char* const gVertexShader;
extern const char* const gFragmentShader;
extern const char* const gFragmentShader_lowest;
extern const char* const gFragmentShader_blend;
extern const char* const gFragmentShader_blendYUV;

// Plane paths: the same programs without GL_EXT_YUV_target. Camera
// images arrive as a luma texture (`outTexture`, unit 0) and a chroma texture (`outTextureUV`,
// unit 1); YUV output goes into an R8 luma or an RG8 chroma target, one program per plane.
// BT.601 full range in shader code.
extern const char* const gPortableRemapFragmentShaderYUV;
extern const char* const gPortableRemapFragmentShaderRGB;
extern const char* const gPortableRemapFragmentShaderRGBtoYUV;
extern const char* const gPortableFragmentShader_blendYUV;
extern const char* const gPortableFragmentShader_blendChroma;
extern const char* const gPortableRemapFragmentShaderChroma;

// Plane paths' frame passes: one quad per block with its mesh in a texture (gMesh*), and the seam
// atlas's programs in the order of SeamAtlas::Program.
extern const char* const gMeshQuadVertexShader;
// [fetched][program]: four fetches of the nearest nodes, or one filtered fetch; luma, chroma, RGB.
extern const char* const gMeshFragmentShaders[2][3];
// The same with exposure compensation (uniform mat3 yuvGain); built only when it is turned on.
extern const char* const gMeshGainFragmentShaders[2][3];
// Luma and chroma for one gain per camera (a diagonal matrix): each reads its own plane only.
extern const char* const gMeshScalarGainFragmentShaders[2][2];
extern const char* const gSeamAtlasVertexShader;
extern const char* const gSeamAtlasOutputVertexShader;
extern const char* const gSeamAtlasFragmentShaders[7];

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_SHADER_TEXTS_H
