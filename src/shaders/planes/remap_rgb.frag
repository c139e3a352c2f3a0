// Camera YUV to RGB for the overlap framebuffers that the blend engine reads.
#version 310 es 
precision highp float;
#include "common/bt601_full_range.glsl"
#include "common/camera_samplers.glsl"
in vec2 outTexCoords;
out vec4 FragColor;
void main()
{
    FragColor = vec4(yuvToRgb601Full(cameraYuv(outTexCoords)), 1.0);
}
