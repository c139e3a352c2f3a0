// The camera image with exposure compensation: RGB gains as a matrix on centred YUV.
#include "common/y2y_declarations.glsl"
uniform mat3 yuvGain;
in vec2 outTexCoords;
out vec4 FragColor;
void main()
{
    vec3 centre = vec3(0.0, 128.0 / 255.0, 128.0 / 255.0);
    vec3 yuv = yuvGain * (texture(outTexture, outTexCoords).xyz - centre) + centre;
