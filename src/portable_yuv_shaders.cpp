// GLSL ES sources of the portable path: the remap and blend programs without GL_EXT_YUV_target,
// and the pack pass that turns a YUV canvas into NV12.
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

// Samples handed over as stored, like the Y2Y external sampler.
const char* const gPortableRemapFragmentShaderYUV =
    "#version 310 es \n"
    "precision highp float;\n"
    AVS_GLSL_CAMERA_SAMPLERS
    "in vec2 outTexCoords;\n"
    "out vec4 FragColor;\n"
    "void main()\n"
    "{\n"
    "    FragColor = vec4(cameraYuv(outTexCoords), 1.0);\n"
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

// One Laplacian level collapsed into the output, converted to YUV on the way.
const char* const gPortableFragmentShader_blendYUV =
    "#version 310 es \n"
    "precision highp float;\n"
    AVS_GLSL_BT601_FULL_RANGE
    "uniform sampler2D texGaussA_n0;\n"
    "uniform sampler2D texGaussB_n0;\n"
    "uniform sampler2D texGaussA_n1;\n"
    "uniform sampler2D texGaussB_n1;\n"
    "uniform sampler2D texResult_n1;\n"
    "uniform sampler2D texAlpha;\n"
    "in vec2 outTexCoords;\n"
    "out vec4 FragColor;\n"
    "void main()\n"
    "{\n"
    "    float alpha = texture(texAlpha, outTexCoords).r;\n"
    "    vec4 laplacA = (texture(texGaussA_n0, outTexCoords) - texture(texGaussA_n1, outTexCoords)) * alpha;\n"
    "    vec4 laplacB = (texture(texGaussB_n0, outTexCoords) - texture(texGaussB_n1, outTexCoords)) * (1.0 - alpha);\n"
    "    vec4 rgbTex = texture(texResult_n1, outTexCoords) + laplacA + laplacB;\n"
    "    FragColor = vec4(rgbToYuv601Full(rgbTex.xyz), 1.0);\n"
    "}\n";

// One triangle that covers the viewport, positions from the vertex index.
const char* const gPortablePackVertexShader =
    "#version 310 es \n"
    "void main()\n"
    "{\n"
    "    vec2 corner = vec2(float((gl_VertexID << 1) & 2), float(gl_VertexID & 2));\n"
    "    gl_Position = vec4(corner * 2.0 - 1.0, 0.0, 1.0);\n"
    "}\n";

// Texel (tx, y) holds the luma of canvas pixels 4tx .. 4tx + 3 of row y; columns past the canvas
// repeat its last one (they are never copied out).
const char* const gPortablePackLumaFragmentShader =
    "#version 310 es \n"
    "precision highp float;\n"
    "precision highp int;\n"
    "layout(binding = 0) uniform highp sampler2D canvas;\n"
    "out vec4 FragColor;\n"
    "float lumaAt(int x, int y, int lastX)\n"
    "{\n"
    "    return texelFetch(canvas, ivec2(min(x, lastX), y), 0).r;\n"
    "}\n"
    "void main()\n"
    "{\n"
    "    ivec2 texel = ivec2(gl_FragCoord.xy);\n"
    "    int lastX = textureSize(canvas, 0).x - 1;\n"
    "    int x = texel.x * 4;\n"
    "    FragColor = vec4(lumaAt(x, texel.y, lastX), lumaAt(x + 1, texel.y, lastX),\n"
    "                     lumaAt(x + 2, texel.y, lastX), lumaAt(x + 3, texel.y, lastX));\n"
    "}\n";

// Texel (tx, cy) holds chroma columns 2tx and 2tx + 1 of chroma row cy as (Cb, Cr, Cb, Cr), each
// the average of its 2 x 2 canvas pixels; an odd last column or row averages with itself.
const char* const gPortablePackChromaFragmentShader =
    "#version 310 es \n"
    "precision highp float;\n"
    "precision highp int;\n"
    "layout(binding = 0) uniform highp sampler2D canvas;\n"
    "out vec4 FragColor;\n"
    "vec2 chromaAt(int cx, int cy, ivec2 last)\n"
    "{\n"
    "    int x0 = min(2 * cx, last.x);\n"
    "    int x1 = min(2 * cx + 1, last.x);\n"
    "    int y0 = min(2 * cy, last.y);\n"
    "    int y1 = min(2 * cy + 1, last.y);\n"
    "    vec2 sum = texelFetch(canvas, ivec2(x0, y0), 0).gb + texelFetch(canvas, ivec2(x1, y0), 0).gb +\n"
    "               texelFetch(canvas, ivec2(x0, y1), 0).gb + texelFetch(canvas, ivec2(x1, y1), 0).gb;\n"
    "    return sum * 0.25;\n"
    "}\n"
    "void main()\n"
    "{\n"
    "    ivec2 texel = ivec2(gl_FragCoord.xy);\n"
    "    ivec2 last = textureSize(canvas, 0) - 1;\n"
    "    FragColor = vec4(chromaAt(2 * texel.x, texel.y, last), chromaAt(2 * texel.x + 1, texel.y, last));\n"
    "}\n";

RemapShaderTexts remapShaderTexts(bool portable)
{
    if (portable)
        return {gRemapVertexShader, gPortableRemapFragmentShaderYUV, gPortableRemapFragmentShaderRGB,
                gPortableRemapFragmentShaderRGBtoYUV};
    return {gRemapVertexShader, gRemapFragmentShaderYUV, gRemapFragmentShaderRGB, gRemapFragmentShaderRGBtoYUV};
}

const char* blendYuvFragmentText(bool portable)
{
    return portable ? gPortableFragmentShader_blendYUV : gFragmentShader_blendYUV;
}

}  // namespace zqgfx_gpu_avs
