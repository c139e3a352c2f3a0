// Finest level, written straight into the YUV output image.
#version 310 es 
#extension GL_OES_EGL_image_external : require
#extension GL_EXT_YUV_target : require 
precision highp float;
#include "common/blend_level_declarations.glsl"
void main()
{
#include "common/blend_level_laplacians.glsl"
    vec4 rgbTex = texture(texResult_n1, outTexCoords) + laplacA + laplacB;
    FragColor = vec4(rgb_2_yuv(rgbTex.xyz, itu_601_full_range), 1.0);
}
