// The finest level of every seam (LEVEL: collapsedLevel, or lowestLevel where it is the only
// one) into the luma plane, four pixels a texel.
#version 310 es 
precision highp float;
#include "common/bt601_full_range.glsl"
#include "common/packed_columns_fragment.glsl"
#include "atlas/atlas_reads.glsl"
out vec4 FragColor;
float lumaAt(vec2 local) { return rgbToYuv601Full(@LEVEL@(local).xyz).x; }
void main()
{
    FragColor = vec4(lumaAt(pixelLocal(-1.5)), lumaAt(pixelLocal(-0.5)), lumaAt(pixelLocal(0.5)),
                     lumaAt(pixelLocal(1.5)));
}
