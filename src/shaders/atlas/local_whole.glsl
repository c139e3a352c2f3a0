// The atlas's own levels: one pixel a fragment, the quad's coordinates are the seam's.
out vec2 vLocal;
vec2 blockLocal(vec2 quadLocal)
{
    return quadLocal;
}
