// With one gain for all channels the matrix is diagonal: each plane is scaled on its own and
// reads nothing of the other.
#include "common/bt601_full_range.glsl"
#include "common/camera_samplers.glsl"
uniform mat3 yuvGain;
float scaledLuma(vec2 s) { return yuvGain[0][0] * texture(outTexture, s).r; }
vec2 scaledChroma(vec2 s) { return kChromaOffset + yuvGain[1][1] * (texture(outTextureUV, s).rg - kChromaOffset); }
