// Luma sampled from the luma texture alone, as stored.
#version 310 es 
precision highp float;
uniform sampler2D outTexture;
#include "common/luma_output.glsl"
in vec2 outTexCoords;
void main()
{
    writePlane(vec3(texture(outTexture, outTexCoords).r, 0.0, 0.0));
}
