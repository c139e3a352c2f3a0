// The chroma half of scalar_gain_luma.frag.
#version 310 es 
precision highp float;
const float kChromaOffset = 128.0 / 255.0;
layout(binding = 1) uniform sampler2D outTextureUV;
uniform mat3 yuvGain;
#include "common/chroma_output.glsl"
#include "@MESH_SOURCE@"
void main()
{
    vec2 cbcr = texture(outTextureUV, sourceCoords()).rg;
    writePlane(vec3(0.0, kChromaOffset + yuvGain[1][1] * (cbcr - kChromaOffset)));
}
