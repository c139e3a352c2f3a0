// A rectangle read as an edge-clamped texture of its own size would be; alpha nearest. `local`
// is the position in the seam's own coordinates (0..1 across and up).
flat in vec4 vRect[6];
layout(binding = 0) uniform sampler2D levelN0;
layout(binding = 1) uniform sampler2D levelN1;
layout(binding = 2) uniform sampler2D resultN1;
layout(binding = 3) uniform highp sampler2D alphaN0;
vec4 inRect(sampler2D s, vec4 r, vec2 local)
{
    vec2 p = clamp(r.xy + local * r.zw, r.xy + 0.5, r.xy + r.zw - 0.5);
    return texture(s, p / vec2(textureSize(s, 0)));
}
float alphaAt(vec4 r, vec2 local)
{
    ivec2 p = ivec2(r.xy) + clamp(ivec2(local * r.zw), ivec2(0), ivec2(r.zw) - 1);
    return texelFetch(alphaN0, p, 0).r;
}
vec4 lowestLevel(vec2 local)
{
    float alpha = alphaAt(vRect[5], local);
    return inRect(levelN0, vRect[0], local) * alpha + inRect(levelN0, vRect[1], local) * (1.0 - alpha);
}
vec4 collapsedLevel(vec2 local)
{
    float alpha = alphaAt(vRect[5], local);
    vec4 laplacA = (inRect(levelN0, vRect[0], local) - inRect(levelN1, vRect[2], local)) * alpha;
    vec4 laplacB = (inRect(levelN0, vRect[1], local) - inRect(levelN1, vRect[3], local)) * (1.0 - alpha);
    return inRect(resultN1, vRect[4], local) + laplacA + laplacB;
}
