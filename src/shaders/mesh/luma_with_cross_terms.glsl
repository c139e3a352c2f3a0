// Chroma reaches luma only through the cross terms of a colour cast (a few percent of the chroma's
// distance from grey), so the luma program reads the nearest chroma sample, not a filtered one.
vec3 cameraYuvForLuma(vec2 coords)
{
    ivec2 size = textureSize(outTextureUV, 0);
    ivec2 c = clamp(ivec2(coords * vec2(size)), ivec2(0), size - 1);
    return vec3(texture(outTexture, coords).r, texelFetch(outTextureUV, c, 0).rg);
}
