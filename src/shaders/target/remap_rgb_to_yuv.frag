// RGB texture to YUV.
#version 310 es 
#extension GL_EXT_YUV_target : require
precision highp float;
uniform sampler2D outTexture;
in vec2 outTexCoords;
out vec4 FragColor;
void main()
{
    vec4 rgbTex = texture(outTexture, outTexCoords);
    FragColor = vec4(rgb_2_yuv(rgbTex.xyz, itu_601_full_range), 1.0);
}
