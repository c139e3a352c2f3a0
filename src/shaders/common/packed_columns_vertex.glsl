// The output planes hold several pixels of a row per texel (see gl/packed_columns.h). The quad's
// own coordinates (0..1 across the viewport, 0..1 up) become the drawn rectangle's through
// `packedColumns`: its x at the viewport's left edge, its change across it, its change per pixel.
uniform vec3 packedColumns;
out vec2 vLocal;
vec2 blockLocal(vec2 quadLocal)
{
    return vec2(packedColumns.x + quadLocal.x * packedColumns.y, quadLocal.y);
}
