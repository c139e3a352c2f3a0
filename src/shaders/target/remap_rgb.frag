// Camera YUV to RGB for the overlap framebuffers that the blend engine reads.
#include "common/y2y_declarations.glsl"
in vec2 outTexCoords;
out vec4 FragColor;
void main()
{
    vec4 yuvTex = texture(outTexture, outTexCoords);
    FragColor = vec4(yuv_2_rgb(yuvTex.xyz, itu_601_full_range), 1.0);
}
