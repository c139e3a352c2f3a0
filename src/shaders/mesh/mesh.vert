// One quad per block: two floats of quad corner, two of the block's own coordinates (0..1 across,
// 0..1 up).
#version 310 es 
layout(location = 0) in vec2 aPosition;
layout(location = 1) in vec2 aLocal;
out vec2 vLocal;
void main()
{
    vLocal = aLocal;
    gl_Position = vec4(aPosition, 0.0, 1.0);
}
