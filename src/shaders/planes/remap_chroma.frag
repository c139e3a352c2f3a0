// Chroma sampled from the chroma texture alone, as stored.
#version 310 es 
precision highp float;
uniform sampler2D outTexture;
layout(binding = 1) uniform sampler2D outTextureUV;
#include "common/chroma_output.glsl"
in vec2 outTexCoords;
void main()
{
    writePlane(vec3(0.0, texture(outTextureUV, outTexCoords).rg));
}
