// The luma plane of a block, its source position from the mesh (MESH_SOURCE).
#version 310 es 
precision highp float;
uniform sampler2D outTexture;
#include "common/luma_output.glsl"
#include "@MESH_SOURCE@"
void main()
{
    writePlane(vec3(texture(outTexture, sourceCoords()).r, 0.0, 0.0));
}
