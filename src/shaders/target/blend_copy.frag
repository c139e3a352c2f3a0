// One texture drawn as it is.
#version 310 es 
precision highp float;
uniform sampler2D textureSamp;
in vec2 outTexCoords;
out vec4 FragColor;
void main()
{
    FragColor = texture(textureSamp, outTexCoords);
}
