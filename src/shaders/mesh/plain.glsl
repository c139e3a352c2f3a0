// Each plane's values at a source position, as stored; both planes for RGB.
#include "common/bt601_full_range.glsl"
#include "common/camera_samplers.glsl"
float lumaAt(vec2 s) { return texture(outTexture, s).r; }
vec2 chromaAt(vec2 s) { return texture(outTextureUV, s).rg; }
