// GLSL ES sources of the remap programs. The three fragment texts sample or write YUV through
// GL_EXT_YUV_target built-ins, so only drivers with that extension build them.
#include "shaders/avs_shader_texts.h"

namespace zqgfx_gpu_avs {

// Positions arrive in clip space and texture coordinates normalised: passed through unchanged.
const char* const gRemapVertexShader =
    "#version 310 es \n"
    "in vec2 vPosition;\n"
    "in vec2 texCoords;\n"
    "out vec2 outTexCoords;\n"
    "void main()\n"
    "{\n"
    "    outTexCoords = texCoords;\n"
    "    gl_Position = vec4(vPosition.x, vPosition.y, 0.0, 1.0);\n"
    "}\n";

// The opening shared by the fragment texts that sample the camera image.
#define ZQAVS_REMAP_Y2Y_DECLARATIONS \
    "#version 310 es \n" \
    "#extension GL_OES_EGL_image_external : require\n" \
    "#extension GL_EXT_YUV_target : require\n" \
    "precision highp float;\n" \
    "uniform __samplerExternal2DY2YEXT outTexture;\n"
#define ZQAVS_REMAP_Y2Y_FRAGMENT_HEAD \
    ZQAVS_REMAP_Y2Y_DECLARATIONS \
    "in vec2 outTexCoords;\n" \
    "out vec4 FragColor;\n" \
    "void main()\n" \
    "{\n"

// Camera YUV straight into the YUV output: the Y2Y sampler hands over the stored samples.
const char* const gRemapFragmentShaderYUV =
    ZQAVS_REMAP_Y2Y_FRAGMENT_HEAD
    "    FragColor = texture(outTexture, outTexCoords);\n"
    "}\n";

// Camera YUV to RGB for the overlap framebuffers that the blend engine reads.
const char* const gRemapFragmentShaderRGB =
    ZQAVS_REMAP_Y2Y_FRAGMENT_HEAD
    "    vec4 yuvTex = texture(outTexture, outTexCoords);\n"
    "    FragColor = vec4(yuv_2_rgb(yuvTex.xyz, itu_601_full_range), 1.0);\n"
    "}\n";

// The same two with exposure compensation: RGB gains as a matrix on centred YUV.
#define ZQAVS_REMAP_Y2Y_GAIN_HEAD \
    ZQAVS_REMAP_Y2Y_DECLARATIONS \
    "uniform mat3 yuvGain;\n" \
    "in vec2 outTexCoords;\n" \
    "out vec4 FragColor;\n" \
    "void main()\n" \
    "{\n" \
    "    vec3 centre = vec3(0.0, 128.0 / 255.0, 128.0 / 255.0);\n" \
    "    vec3 yuv = yuvGain * (texture(outTexture, outTexCoords).xyz - centre) + centre;\n"

const char* const gRemapGainFragmentShaderYUV =
    ZQAVS_REMAP_Y2Y_GAIN_HEAD
    "    FragColor = vec4(yuv, 1.0);\n"
    "}\n";

const char* const gRemapGainFragmentShaderRGB =
    ZQAVS_REMAP_Y2Y_GAIN_HEAD
    "    FragColor = vec4(yuv_2_rgb(yuv, itu_601_full_range), 1.0);\n"
    "}\n";

#undef ZQAVS_REMAP_Y2Y_GAIN_HEAD

// RGB texture to YUV.
const char* const gRemapFragmentShaderRGBtoYUV =
    "#version 310 es \n"
    "#extension GL_EXT_YUV_target : require\n"
    "precision highp float;\n"
    "uniform sampler2D outTexture;\n"
    "in vec2 outTexCoords;\n"
    "out vec4 FragColor;\n"
    "void main()\n"
    "{\n"
    "    vec4 rgbTex = texture(outTexture, outTexCoords);\n"
    "    FragColor = vec4(rgb_2_yuv(rgbTex.xyz, itu_601_full_range), 1.0);\n"
    "}\n";

#undef ZQAVS_REMAP_Y2Y_FRAGMENT_HEAD
#undef ZQAVS_REMAP_Y2Y_DECLARATIONS

}  // namespace zqgfx_gpu_avs
