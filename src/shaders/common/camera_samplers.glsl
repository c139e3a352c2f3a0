// A camera image as two textures; the chroma unit is fixed here so that the remap draw only sets
// `outTexture` as it does on the target path.
uniform sampler2D outTexture;
layout(binding = 1) uniform sampler2D outTextureUV;
vec3 cameraYuv(vec2 coords)
{
    return vec3(texture(outTexture, coords).r, texture(outTextureUV, coords).rg);
}
