// RGB texture to YUV.
#version 310 es 
precision highp float;
#include "common/bt601_full_range.glsl"
uniform sampler2D outTexture;
in vec2 outTexCoords;
out vec4 FragColor;
void main()
{
    vec4 rgbTex = texture(outTexture, outTexCoords);
    FragColor = vec4(rgbToYuv601Full(rgbTex.xyz), 1.0);
}
