// The coarsest level of every seam: the two Gaussian levels mixed by the alpha map.
#version 310 es 
precision highp float;
#include "common/bt601_full_range.glsl"
in vec2 vLocal;
#include "atlas/atlas_reads.glsl"
out vec4 FragColor;
void main()
{
    FragColor = lowestLevel(vLocal);
}
