// A block with exposure compensation: RGB gains as a matrix on centred YUV. Luma then depends on
// chroma too, and chroma on luma: these programs read both planes. OUTPUT is the plane (or RGB)
// written, SAMPLE the function that reads the camera.
#version 310 es 
precision highp float;
#include "common/bt601_full_range.glsl"
#include "common/camera_samplers.glsl"
uniform mat3 yuvGain;
vec3 compensated(vec3 yuv)
{
    vec3 centre = vec3(0.0, kChromaOffset, kChromaOffset);
    return yuvGain * (yuv - centre) + centre;
}
#include "mesh/luma_with_cross_terms.glsl"
#include "@OUTPUT@"
#include "@MESH_SOURCE@"
void main()
{
    writePlane(compensated(@SAMPLE@(sourceCoords())));
}
