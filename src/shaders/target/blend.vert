// The blend programs' vertices: clip-space positions, normalised texture coordinates.
#version 310 es 
in vec4 vPosition;
in vec2 texCoords;
out vec2 outTexCoords;
void main()
{
    outTexCoords = texCoords;
    gl_Position = vPosition;
}
