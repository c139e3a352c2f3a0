// One Laplacian level collapsed into one plane of the output (PLANE_WRITE: luma or chroma),
// converted to YUV on the way.
#version 310 es 
precision highp float;
#include "common/bt601_full_range.glsl"
#include "common/blend_level_declarations.glsl"
#include "@PLANE_WRITE@"
void main()
{
#include "common/blend_level_laplacians.glsl"
    vec4 rgbTex = texture(texResult_n1, outTexCoords) + laplacA + laplacB;
    writePlane(rgbToYuv601Full(rgbTex.xyz));
}
