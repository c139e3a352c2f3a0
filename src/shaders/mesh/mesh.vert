// One quad per block: two floats of quad corner, two of the quad's own coordinates.
#version 310 es 
layout(location = 0) in vec2 aPosition;
layout(location = 1) in vec2 aLocal;
#include "common/packed_columns_vertex.glsl"
void main()
{
    vLocal = blockLocal(aLocal);
    gl_Position = vec4(aPosition, 0.0, 1.0);
}
