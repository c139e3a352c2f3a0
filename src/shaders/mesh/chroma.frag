// The chroma plane of a block.
#version 310 es 
precision highp float;
layout(binding = 1) uniform sampler2D outTextureUV;
#include "common/chroma_output.glsl"
#include "@MESH_SOURCE@"
void main()
{
    writePlane(vec3(0.0, texture(outTextureUV, sourceCoords()).rg));
}
