// The finest level of every seam collapsed into the luma plane.
#version 310 es 
precision highp float;
#include "common/bt601_full_range.glsl"
#include "atlas/atlas_reads.glsl"
#include "common/luma_output.glsl"
void main()
{
    writePlane(rgbToYuv601Full(collapsedLevel().xyz));
}
