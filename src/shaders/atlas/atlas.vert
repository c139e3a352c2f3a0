// The seam atlas: every seam of a level in one draw. Each quad carries the rectangles it reads,
// in texels of their textures, in the order A(l), B(l), A(l+1), B(l+1), result(l+1), alpha(l).
// LOCAL maps the quad's own coordinates onto the seam's (blockLocal).
#version 310 es 
layout(location = 0) in vec2 aPosition;
layout(location = 1) in vec2 aLocal;
layout(location = 2) in vec4 aRect0;
layout(location = 3) in vec4 aRect1;
layout(location = 4) in vec4 aRect2;
layout(location = 5) in vec4 aRect3;
layout(location = 6) in vec4 aRect4;
layout(location = 7) in vec4 aRect5;
#include "@LOCAL@"
flat out vec4 vRect[6];
void main()
{
    vLocal = blockLocal(aLocal);
    vRect[0] = aRect0; vRect[1] = aRect1; vRect[2] = aRect2;
    vRect[3] = aRect3; vRect[4] = aRect4; vRect[5] = aRect5;
    gl_Position = vec4(aPosition, 0.0, 1.0);
}
