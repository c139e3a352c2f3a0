// Positions arrive in clip space and texture coordinates normalised: passed through unchanged.
#version 310 es 
in vec2 vPosition;
in vec2 texCoords;
out vec2 outTexCoords;
void main()
{
    outTexCoords = texCoords;
    gl_Position = vec4(vPosition.x, vPosition.y, 0.0, 1.0);
}
