// One level collapsed: the coarser result expanded plus both Laplacians.
#version 310 es 
precision highp float;
#include "common/blend_level_declarations.glsl"
void main()
{
#include "common/blend_level_laplacians.glsl"
    FragColor = texture(texResult_n1, outTexCoords) + laplacA + laplacB;
}
