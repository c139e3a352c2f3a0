// Where the driver filters float textures, the bilinear interpolation of source_nearest.glsl is
// one filtered fetch.
layout(binding = 2) uniform highp sampler2D meshCoords;
vec2 sourceCoords(vec2 local)
{
    vec2 nodes = vec2(textureSize(meshCoords, 0));
    return texture(meshCoords, (local * (nodes - 1.0) + 0.5) / nodes).xy;
}
