// With exposure compensation: RGB gains as a matrix on centred YUV. Luma then depends on chroma
// too, and chroma on luma: these programs read both planes. Chroma reaches luma only through the
// cross terms of a colour cast (a few percent of the chroma's distance from grey), so luma reads
// the nearest chroma sample, not a filtered one.
#include "common/bt601_full_range.glsl"
#include "common/camera_samplers.glsl"
uniform mat3 yuvGain;
vec3 compensated(vec3 yuv)
{
    vec3 centre = vec3(0.0, kChromaOffset, kChromaOffset);
    return yuvGain * (yuv - centre) + centre;
}
float compensatedLuma(vec2 coords)
{
    ivec2 size = textureSize(outTextureUV, 0);
    ivec2 c = clamp(ivec2(coords * vec2(size)), ivec2(0), size - 1);
    return compensated(vec3(texture(outTexture, coords).r, texelFetch(outTextureUV, c, 0).rg)).x;
}
vec2 compensatedChroma(vec2 coords) { return compensated(cameraYuv(coords)).yz; }
vec3 compensatedYuv(vec2 coords) { return compensated(cameraYuv(coords)); }
