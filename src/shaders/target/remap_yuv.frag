// Camera YUV straight into the YUV output: the Y2Y sampler hands over the stored samples.
#include "common/y2y_declarations.glsl"
in vec2 outTexCoords;
out vec4 FragColor;
void main()
{
    FragColor = texture(outTexture, outTexCoords);
}
