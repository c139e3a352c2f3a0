// GLSL ES sources of the plane paths: the remap and blend programs without GL_EXT_YUV_target.
#include "avs_shader_texts.h"
#include "portable_yuv.h"

namespace zqgfx_gpu_avs {

// BT.601 full range (JFIF) on normalised values, chroma centred on 128/255: the arithmetic of the
// yuv_2_rgb / rgb_2_yuv built-ins with itu_601_full_range. Every text that converts includes this
// one definition.
#define AVS_GLSL_BT601_FULL_RANGE                                                          \
    "const float kChromaOffset = 128.0 / 255.0;\n"                                          \
    "vec3 rgbToYuv601Full(vec3 rgb)\n"                                                      \
    "{\n"                                                                                  \
    "    return vec3(dot(rgb, vec3(0.299, 0.587, 0.114)),\n"                                \
    "                dot(rgb, vec3(-0.168736, -0.331264, 0.5)) + kChromaOffset,\n"           \
    "                dot(rgb, vec3(0.5, -0.418688, -0.081312)) + kChromaOffset);\n"          \
    "}\n"                                                                                  \
    "vec3 yuvToRgb601Full(vec3 yuv)\n"                                                      \
    "{\n"                                                                                  \
    "    float cb = yuv.y - kChromaOffset;\n"                                               \
    "    float cr = yuv.z - kChromaOffset;\n"                                               \
    "    return vec3(yuv.x + 1.402 * cr, yuv.x - 0.344136 * cb - 0.714136 * cr, yuv.x + 1.772 * cb);\n" \
    "}\n"

// A camera image as two textures; the chroma unit is fixed here so that the remap draw only sets
// `outTexture` as it does on the target path.
#define AVS_GLSL_CAMERA_SAMPLERS                                    \
    "uniform sampler2D outTexture;\n"                               \
    "layout(binding = 1) uniform sampler2D outTextureUV;\n"         \
    "vec3 cameraYuv(vec2 coords)\n"                                 \
    "{\n"                                                           \
    "    return vec3(texture(outTexture, coords).r, texture(outTextureUV, coords).rg);\n" \
    "}\n"

// The programs that write the output come in two: one for the R8 luma target, one for the
// half-size RG8 chroma target, whose pixel centres fall on the centres of 2 x 2 luma blocks.
#define AVS_GLSL_LUMA_WRITE "void writePlane(vec3 yuv) { FragColor = vec4(yuv.x, 0.0, 0.0, 1.0); }\n"
#define AVS_GLSL_CHROMA_WRITE "void writePlane(vec3 yuv) { FragColor = vec4(yuv.yz, 0.0, 1.0); }\n"
#define AVS_GLSL_LUMA_OUTPUT "out vec4 FragColor;\n" AVS_GLSL_LUMA_WRITE
#define AVS_GLSL_CHROMA_OUTPUT "out vec4 FragColor;\n" AVS_GLSL_CHROMA_WRITE

// Luma sampled from the luma texture alone, chroma from the chroma texture alone, as stored.
const char* const gPortableRemapFragmentShaderYUV =
    "#version 310 es \n"
    "precision highp float;\n"
    "uniform sampler2D outTexture;\n"
    AVS_GLSL_LUMA_OUTPUT
    "in vec2 outTexCoords;\n"
    "void main()\n"
    "{\n"
    "    writePlane(vec3(texture(outTexture, outTexCoords).r, 0.0, 0.0));\n"
    "}\n";

const char* const gPortableRemapFragmentShaderChroma =
    "#version 310 es \n"
    "precision highp float;\n"
    "uniform sampler2D outTexture;\n"
    "layout(binding = 1) uniform sampler2D outTextureUV;\n"
    AVS_GLSL_CHROMA_OUTPUT
    "in vec2 outTexCoords;\n"
    "void main()\n"
    "{\n"
    "    writePlane(vec3(0.0, texture(outTextureUV, outTexCoords).rg));\n"
    "}\n";

const char* const gPortableRemapFragmentShaderRGB =
    "#version 310 es \n"
    "precision highp float;\n"
    AVS_GLSL_BT601_FULL_RANGE
    AVS_GLSL_CAMERA_SAMPLERS
    "in vec2 outTexCoords;\n"
    "out vec4 FragColor;\n"
    "void main()\n"
    "{\n"
    "    FragColor = vec4(yuvToRgb601Full(cameraYuv(outTexCoords)), 1.0);\n"
    "}\n";

const char* const gPortableRemapFragmentShaderRGBtoYUV =
    "#version 310 es \n"
    "precision highp float;\n"
    AVS_GLSL_BT601_FULL_RANGE
    "uniform sampler2D outTexture;\n"
    "in vec2 outTexCoords;\n"
    "out vec4 FragColor;\n"
    "void main()\n"
    "{\n"
    "    vec4 rgbTex = texture(outTexture, outTexCoords);\n"
    "    FragColor = vec4(rgbToYuv601Full(rgbTex.xyz), 1.0);\n"
    "}\n";

// One Laplacian level collapsed into one plane of the output, converted to YUV on the way.
#define AVS_GLSL_BLEND_INTO_PLANE(PLANE_WRITE)                 \
    "#version 310 es \n"                                       \
    "precision highp float;\n"                                 \
    AVS_GLSL_BT601_FULL_RANGE                                  \
    AVS_GLSL_BLEND_LEVEL_DECLARATIONS                          \
    PLANE_WRITE                                                \
    "void main()\n"                                            \
    "{\n"                                                      \
    AVS_GLSL_BLEND_LEVEL_LAPLACIANS                            \
    "    vec4 rgbTex = texture(texResult_n1, outTexCoords) + laplacA + laplacB;\n" \
    "    writePlane(rgbToYuv601Full(rgbTex.xyz));\n"          \
    "}\n"

const char* const gPortableFragmentShader_blendYUV = AVS_GLSL_BLEND_INTO_PLANE(AVS_GLSL_LUMA_WRITE);
const char* const gPortableFragmentShader_blendChroma = AVS_GLSL_BLEND_INTO_PLANE(AVS_GLSL_CHROMA_WRITE);

RemapShaderTexts remapShaderTexts(bool portable)
{
    if (portable)
        return {gRemapVertexShader, gPortableRemapFragmentShaderYUV, gPortableRemapFragmentShaderRGB,
                gPortableRemapFragmentShaderRGBtoYUV, gPortableRemapFragmentShaderChroma};
    return {gRemapVertexShader, gRemapFragmentShaderYUV, gRemapFragmentShaderRGB, gRemapFragmentShaderRGBtoYUV,
            nullptr};
}

const char* blendYuvFragmentText(bool portable)
{
    return portable ? gPortableFragmentShader_blendYUV : gFragmentShader_blendYUV;
}

const char* blendChromaFragmentText()
{
    return gPortableFragmentShader_blendChroma;
}

}  // namespace zqgfx_gpu_avs
