// The finest level of every seam (LEVEL as in plane_luma.frag) into the chroma plane, two CbCr
// pairs a texel.
#version 310 es 
precision highp float;
#include "common/bt601_full_range.glsl"
#include "common/packed_columns_fragment.glsl"
#include "atlas/atlas_reads.glsl"
out vec4 FragColor;
vec2 chromaAt(vec2 local) { return rgbToYuv601Full(@LEVEL@(local).xyz).yz; }
void main()
{
    FragColor = vec4(chromaAt(pixelLocal(-0.5)), chromaAt(pixelLocal(0.5)));
}
