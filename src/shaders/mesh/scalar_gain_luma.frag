// With one gain for all channels the matrix is diagonal: each plane is scaled on its own and
// reads nothing of the other.
#version 310 es 
precision highp float;
uniform sampler2D outTexture;
uniform mat3 yuvGain;
#include "common/luma_output.glsl"
#include "@MESH_SOURCE@"
void main()
{
    writePlane(vec3(yuvGain[0][0] * texture(outTexture, sourceCoords()).r, 0.0, 0.0));
}
