// One level of every seam collapsed into RGB.
#version 310 es 
precision highp float;
#include "common/bt601_full_range.glsl"
in vec2 vLocal;
#include "atlas/atlas_reads.glsl"
out vec4 FragColor;
void main()
{
    FragColor = collapsedLevel(vLocal);
}
