// A level of every seam drawn into the next smaller one: the pyramid's reduce step.
#version 310 es 
precision highp float;
#include "common/bt601_full_range.glsl"
in vec2 vLocal;
#include "atlas/atlas_reads.glsl"
out vec4 FragColor;
void main()
{
    FragColor = inRect(levelN0, vRect[0], vLocal);
}
