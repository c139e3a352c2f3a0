// GLSL ES sources of the remap programs. The three fragment texts sample or write YUV through
// GL_EXT_YUV_target built-ins, so only drivers with that extension build them.
#include "avs_shader_texts.h"

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

// The opening shared by the two fragment texts that sample the camera image.
#define ZQAVS_REMAP_Y2Y_FRAGMENT_HEAD \
    "#version 310 es \n" \
    "#extension GL_OES_EGL_image_external : require\n" \
    "#extension GL_EXT_YUV_target : require\n" \
    "precision highp float;\n" \
    "uniform __samplerExternal2DY2YEXT outTexture;\n" \
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

}  // namespace zqgfx_gpu_avs
