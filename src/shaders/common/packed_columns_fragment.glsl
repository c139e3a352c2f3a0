// The drawn rectangle's coordinates of the pixel `offset` pixels right of the texel's centre.
in vec2 vLocal;
uniform vec3 packedColumns;
vec2 pixelLocal(float offset)
{
    return vLocal + vec2(offset * packedColumns.z, 0.0);
}
