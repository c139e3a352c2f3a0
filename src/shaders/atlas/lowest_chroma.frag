// The coarsest level of every seam, as the only level, into the chroma plane.
#version 310 es 
precision highp float;
#include "common/bt601_full_range.glsl"
#include "atlas/atlas_reads.glsl"
#include "common/chroma_output.glsl"
void main()
{
    writePlane(rgbToYuv601Full(lowestLevel().xyz));
}
