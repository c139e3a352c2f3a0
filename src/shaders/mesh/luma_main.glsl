// Luma, four pixels a texel. Along a row inside one mesh cell the bilinear source position is
// linear in x, so two mesh lookups place all four: at the texel's outer pixels that lie in the
// block (the others are masked off), the rest on the line through them. A texel across a cell
// boundary follows the chord, a small fraction of a pixel off for a smooth mesh.
out vec4 FragColor;
void main()
{
    float first = 0.5 * packedColumns.z;
    vec2 a = pixelLocal(-1.5), b = pixelLocal(1.5);
    a.x = clamp(a.x, first, 1.0 - first);
    b.x = clamp(b.x, first, 1.0 - first);
    vec2 sa = sourceCoords(a), sb = sourceCoords(b);
    vec4 t = (vec4(-1.5, -0.5, 0.5, 1.5) * packedColumns.z + (vLocal.x - a.x)) / max(b.x - a.x, 1e-9);
    FragColor = vec4(@SAMPLE@(mix(sa, sb, t.x)), @SAMPLE@(mix(sa, sb, t.y)), @SAMPLE@(mix(sa, sb, t.z)),
                     @SAMPLE@(mix(sa, sb, t.w)));
}
