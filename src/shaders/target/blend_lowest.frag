// Coarsest level: the two Gaussian levels mixed by the alpha map.
#version 310 es 
precision highp float;
uniform sampler2D texGaussA;
uniform sampler2D texGaussB;
uniform sampler2D texAlpha;
in vec2 outTexCoords;
out vec4 FragColor;
void main()
{
    float alpha = texture(texAlpha, outTexCoords).r;
    FragColor = texture(texGaussA, outTexCoords) * alpha
              + texture(texGaussB, outTexCoords) * (1.0 - alpha);
}
