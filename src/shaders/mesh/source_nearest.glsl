// The block's mesh holds one normalised source position per node, nodes spread evenly over the
// block; between them the position is bilinear in the four nodes around the pixel.
layout(binding = 2) uniform highp sampler2D meshCoords;
vec2 sourceCoords(vec2 local)
{
    ivec2 nodes = textureSize(meshCoords, 0);
    vec2 m = local * vec2(nodes - 1);
    ivec2 i = clamp(ivec2(floor(m)), ivec2(0), max(nodes - 2, ivec2(0)));
    vec2 f = m - vec2(i);
    ivec2 j = min(i + 1, nodes - 1);
    vec2 top = mix(texelFetch(meshCoords, i, 0).xy, texelFetch(meshCoords, ivec2(j.x, i.y), 0).xy, f.x);
    vec2 bottom = mix(texelFetch(meshCoords, ivec2(i.x, j.y), 0).xy, texelFetch(meshCoords, j, 0).xy, f.x);
    return mix(top, bottom, f.y);
}
