// GLSL ES sources of the plane paths: the remap and blend programs without GL_EXT_YUV_target.
#include "avs_shader_texts.h"
#include "portable_yuv.h"

namespace zqgfx_gpu_avs {

// BT.601 full range (JFIF) on normalised values, chroma centred on 128/255: the arithmetic of the
// yuv_2_rgb / rgb_2_yuv built-ins with itu_601_full_range. Every text that converts includes this
// one definition.
#define AVS_GLSL_BT601_FULL_RANGE                                                          \
    "const float kChromaOffset = 128.0 / 255.0;\n"                                          \
    "vec3 rgbToYuv601Full(vec3 rgb)\n"                                                      \
    "{\n"                                                                                  \
    "    return vec3(dot(rgb, vec3(0.299, 0.587, 0.114)),\n"                                \
    "                dot(rgb, vec3(-0.168736, -0.331264, 0.5)) + kChromaOffset,\n"           \
    "                dot(rgb, vec3(0.5, -0.418688, -0.081312)) + kChromaOffset);\n"          \
    "}\n"                                                                                  \
    "vec3 yuvToRgb601Full(vec3 yuv)\n"                                                      \
    "{\n"                                                                                  \
    "    float cb = yuv.y - kChromaOffset;\n"                                               \
    "    float cr = yuv.z - kChromaOffset;\n"                                               \
    "    return vec3(yuv.x + 1.402 * cr, yuv.x - 0.344136 * cb - 0.714136 * cr, yuv.x + 1.772 * cb);\n" \
    "}\n"

// A camera image as two textures; the chroma unit is fixed here so that the remap draw only sets
// `outTexture` as it does on the target path.
#define AVS_GLSL_CAMERA_SAMPLERS                                    \
    "uniform sampler2D outTexture;\n"                               \
    "layout(binding = 1) uniform sampler2D outTextureUV;\n"         \
    "vec3 cameraYuv(vec2 coords)\n"                                 \
    "{\n"                                                           \
    "    return vec3(texture(outTexture, coords).r, texture(outTextureUV, coords).rg);\n" \
    "}\n"

// The programs that write the output come in two: one for the R8 luma target, one for the
// half-size RG8 chroma target, whose pixel centres fall on the centres of 2 x 2 luma blocks.
#define AVS_GLSL_LUMA_WRITE "void writePlane(vec3 yuv) { FragColor = vec4(yuv.x, 0.0, 0.0, 1.0); }\n"
#define AVS_GLSL_CHROMA_WRITE "void writePlane(vec3 yuv) { FragColor = vec4(yuv.yz, 0.0, 1.0); }\n"
#define AVS_GLSL_LUMA_OUTPUT "out vec4 FragColor;\n" AVS_GLSL_LUMA_WRITE
#define AVS_GLSL_CHROMA_OUTPUT "out vec4 FragColor;\n" AVS_GLSL_CHROMA_WRITE

// Luma sampled from the luma texture alone, chroma from the chroma texture alone, as stored.
const char* const gPortableRemapFragmentShaderYUV =
    "#version 310 es \n"
    "precision highp float;\n"
    "uniform sampler2D outTexture;\n"
    AVS_GLSL_LUMA_OUTPUT
    "in vec2 outTexCoords;\n"
    "void main()\n"
    "{\n"
    "    writePlane(vec3(texture(outTexture, outTexCoords).r, 0.0, 0.0));\n"
    "}\n";

const char* const gPortableRemapFragmentShaderChroma =
    "#version 310 es \n"
    "precision highp float;\n"
    "uniform sampler2D outTexture;\n"
    "layout(binding = 1) uniform sampler2D outTextureUV;\n"
    AVS_GLSL_CHROMA_OUTPUT
    "in vec2 outTexCoords;\n"
    "void main()\n"
    "{\n"
    "    writePlane(vec3(0.0, texture(outTextureUV, outTexCoords).rg));\n"
    "}\n";

const char* const gPortableRemapFragmentShaderRGB =
    "#version 310 es \n"
    "precision highp float;\n"
    AVS_GLSL_BT601_FULL_RANGE
    AVS_GLSL_CAMERA_SAMPLERS
    "in vec2 outTexCoords;\n"
    "out vec4 FragColor;\n"
    "void main()\n"
    "{\n"
    "    FragColor = vec4(yuvToRgb601Full(cameraYuv(outTexCoords)), 1.0);\n"
    "}\n";

const char* const gPortableRemapFragmentShaderRGBtoYUV =
    "#version 310 es \n"
    "precision highp float;\n"
    AVS_GLSL_BT601_FULL_RANGE
    "uniform sampler2D outTexture;\n"
    "in vec2 outTexCoords;\n"
    "out vec4 FragColor;\n"
    "void main()\n"
    "{\n"
    "    vec4 rgbTex = texture(outTexture, outTexCoords);\n"
    "    FragColor = vec4(rgbToYuv601Full(rgbTex.xyz), 1.0);\n"
    "}\n";

// One Laplacian level collapsed into one plane of the output, converted to YUV on the way.
#define AVS_GLSL_BLEND_INTO_PLANE(PLANE_WRITE)                 \
    "#version 310 es \n"                                       \
    "precision highp float;\n"                                 \
    AVS_GLSL_BT601_FULL_RANGE                                  \
    AVS_GLSL_BLEND_LEVEL_DECLARATIONS                          \
    PLANE_WRITE                                                \
    "void main()\n"                                            \
    "{\n"                                                      \
    AVS_GLSL_BLEND_LEVEL_LAPLACIANS                            \
    "    vec4 rgbTex = texture(texResult_n1, outTexCoords) + laplacA + laplacB;\n" \
    "    writePlane(rgbToYuv601Full(rgbTex.xyz));\n"          \
    "}\n"

const char* const gPortableFragmentShader_blendYUV = AVS_GLSL_BLEND_INTO_PLANE(AVS_GLSL_LUMA_WRITE);
const char* const gPortableFragmentShader_blendChroma = AVS_GLSL_BLEND_INTO_PLANE(AVS_GLSL_CHROMA_WRITE);

// ---- one quad per block: the mesh is a texture, interpolated per pixel --------------------

// The output planes hold several pixels of a row per texel (see packed_columns.h). The quad's
// own coordinates (0..1 across the viewport, 0..1 up) become the drawn block's through
// `packedColumns`: its x at the viewport's left edge, its change across it, its change per pixel.
#define AVS_GLSL_PACKED_COLUMNS_VERTEX                                             \
    "uniform vec3 packedColumns;\n"                                                 \
    "out vec2 vLocal;\n"                                                            \
    "vec2 blockLocal(vec2 quadLocal)\n"                                             \
    "{\n"                                                                           \
    "    return vec2(packedColumns.x + quadLocal.x * packedColumns.y, quadLocal.y);\n" \
    "}\n"

// The block's coordinates of the pixel `offset` pixels right of the texel's centre.
#define AVS_GLSL_PACKED_COLUMNS_FRAGMENT                          \
    "in vec2 vLocal;\n"                                           \
    "uniform vec3 packedColumns;\n"                               \
    "vec2 pixelLocal(float offset)\n"                             \
    "{\n"                                                         \
    "    return vLocal + vec2(offset * packedColumns.z, 0.0);\n"  \
    "}\n"

// Two floats of quad corner, two of the quad's own coordinates.
const char* const gMeshQuadVertexShader =
    "#version 310 es \n"
    "layout(location = 0) in vec2 aPosition;\n"
    "layout(location = 1) in vec2 aLocal;\n"
    AVS_GLSL_PACKED_COLUMNS_VERTEX
    "void main()\n"
    "{\n"
    "    vLocal = blockLocal(aLocal);\n"
    "    gl_Position = vec4(aPosition, 0.0, 1.0);\n"
    "}\n";

// The block's mesh holds one normalised source position per node, nodes spread evenly over the
// block; between them the position is bilinear in the four nodes around the pixel.
#define AVS_GLSL_MESH_SOURCE                                                               \
    "layout(binding = 2) uniform highp sampler2D meshCoords;\n"                          \
    "vec2 sourceCoords(vec2 local)\n"                                                     \
    "{\n"                                                                                 \
    "    ivec2 nodes = textureSize(meshCoords, 0);\n"                                     \
    "    vec2 m = local * vec2(nodes - 1);\n"                                             \
    "    ivec2 i = clamp(ivec2(floor(m)), ivec2(0), max(nodes - 2, ivec2(0)));\n"         \
    "    vec2 f = m - vec2(i);\n"                                                         \
    "    ivec2 j = min(i + 1, nodes - 1);\n"                                              \
    "    vec2 top = mix(texelFetch(meshCoords, i, 0).xy, texelFetch(meshCoords, ivec2(j.x, i.y), 0).xy, f.x);\n" \
    "    vec2 bottom = mix(texelFetch(meshCoords, ivec2(i.x, j.y), 0).xy, texelFetch(meshCoords, j, 0).xy, f.x);\n" \
    "    return mix(top, bottom, f.y);\n"                                                 \
    "}\n"

// Where the driver filters float textures, the same bilinear interpolation is one filtered fetch.
#define AVS_GLSL_MESH_SOURCE_FILTERED                                                      \
    "layout(binding = 2) uniform highp sampler2D meshCoords;\n"                          \
    "vec2 sourceCoords(vec2 local)\n"                                                     \
    "{\n"                                                                                 \
    "    vec2 nodes = vec2(textureSize(meshCoords, 0));\n"                                \
    "    return texture(meshCoords, (local * (nodes - 1.0) + 0.5) / nodes).xy;\n"         \
    "}\n"

// Luma, four pixels a texel. Along a row inside one mesh cell the bilinear source position is
// linear in x, so two mesh lookups place all four: at the texel's outer pixels that lie in the
// block (the others are masked off), the rest on the line through them.
#define AVS_GLSL_PACKED_LUMA_MAIN(SAMPLE)                                                               \
    "out vec4 FragColor;\n"                                                                             \
    "void main()\n"                                                                                     \
    "{\n"                                                                                               \
    "    float first = 0.5 * packedColumns.z;\n"                                                        \
    "    vec2 a = pixelLocal(-1.5), b = pixelLocal(1.5);\n"                                             \
    "    a.x = clamp(a.x, first, 1.0 - first);\n"                                                       \
    "    b.x = clamp(b.x, first, 1.0 - first);\n"                                                       \
    "    vec2 sa = sourceCoords(a), sb = sourceCoords(b);\n"                                            \
    "    vec4 t = (vec4(-1.5, -0.5, 0.5, 1.5) * packedColumns.z + (vLocal.x - a.x)) / max(b.x - a.x, 1e-9);\n" \
    "    FragColor = vec4(" SAMPLE "(mix(sa, sb, t.x)), " SAMPLE "(mix(sa, sb, t.y)), "                   \
    SAMPLE "(mix(sa, sb, t.z)), " SAMPLE "(mix(sa, sb, t.w)));\n"                                     \
    "}\n"

// Chroma, two CbCr pairs a texel.
#define AVS_GLSL_PACKED_CHROMA_MAIN(SAMPLE)                                                             \
    "out vec4 FragColor;\n"                                                                             \
    "void main()\n"                                                                                     \
    "{\n"                                                                                               \
    "    FragColor = vec4(" SAMPLE "(sourceCoords(pixelLocal(-0.5))), " SAMPLE "(sourceCoords(pixelLocal(0.5))));\n" \
    "}\n"

#define AVS_GLSL_RGB_MAIN(SAMPLE)                                                      \
    "out vec4 FragColor;\n"                                                            \
    "void main()\n"                                                                    \
    "{\n"                                                                              \
    "    FragColor = vec4(yuvToRgb601Full(" SAMPLE "(sourceCoords(vLocal))), 1.0);\n"  \
    "}\n"

#define AVS_GLSL_MESH_PROGRAM(SOURCE, SAMPLING, MAIN) \
    "#version 310 es \n"                              \
    "precision highp float;\n"                        \
    SAMPLING                                          \
    AVS_GLSL_PACKED_COLUMNS_FRAGMENT                  \
    SOURCE                                            \
    MAIN

// Each plane's values at a source position, as stored.
#define AVS_GLSL_LUMA_AT                                                        \
    "uniform sampler2D outTexture;\n"                                           \
    "float lumaAt(vec2 s) { return texture(outTexture, s).r; }\n"
#define AVS_GLSL_CHROMA_AT                                                      \
    "layout(binding = 1) uniform sampler2D outTextureUV;\n"                     \
    "vec2 chromaAt(vec2 s) { return texture(outTextureUV, s).rg; }\n"

#define AVS_GLSL_MESH_PROGRAMS(SOURCE)                                                                    \
    {AVS_GLSL_MESH_PROGRAM(SOURCE, AVS_GLSL_LUMA_AT, AVS_GLSL_PACKED_LUMA_MAIN("lumaAt")),                \
     AVS_GLSL_MESH_PROGRAM(SOURCE, AVS_GLSL_CHROMA_AT, AVS_GLSL_PACKED_CHROMA_MAIN("chromaAt")),          \
     AVS_GLSL_MESH_PROGRAM(SOURCE, AVS_GLSL_BT601_FULL_RANGE AVS_GLSL_CAMERA_SAMPLERS,                    \
                           AVS_GLSL_RGB_MAIN("cameraYuv"))}

const char* const gMeshFragmentShaders[2][3] = {AVS_GLSL_MESH_PROGRAMS(AVS_GLSL_MESH_SOURCE),
                                                AVS_GLSL_MESH_PROGRAMS(AVS_GLSL_MESH_SOURCE_FILTERED)};

// The same three with exposure compensation: RGB gains as a matrix on centred YUV. Luma then
// depends on chroma too, and chroma on luma: these programs read both planes.
#define AVS_GLSL_GAIN                                                  \
    "uniform mat3 yuvGain;\n"                                          \
    "vec3 compensated(vec3 yuv)\n"                                     \
    "{\n"                                                              \
    "    vec3 centre = vec3(0.0, kChromaOffset, kChromaOffset);\n"     \
    "    return yuvGain * (yuv - centre) + centre;\n"                  \
    "}\n"

// Chroma reaches luma only through the cross terms of a colour cast (a few percent of the chroma's
// distance from grey), so the luma program reads the nearest chroma sample, not a filtered one.
#define AVS_GLSL_MATRIX_GAIN_SAMPLING                                                      \
    AVS_GLSL_BT601_FULL_RANGE                                                              \
    AVS_GLSL_CAMERA_SAMPLERS                                                               \
    AVS_GLSL_GAIN                                                                          \
    "float compensatedLuma(vec2 coords)\n"                                                 \
    "{\n"                                                                                  \
    "    ivec2 size = textureSize(outTextureUV, 0);\n"                                     \
    "    ivec2 c = clamp(ivec2(coords * vec2(size)), ivec2(0), size - 1);\n"               \
    "    return compensated(vec3(texture(outTexture, coords).r, texelFetch(outTextureUV, c, 0).rg)).x;\n" \
    "}\n"                                                                                  \
    "vec2 compensatedChroma(vec2 coords) { return compensated(cameraYuv(coords)).yz; }\n"  \
    "vec3 compensatedYuv(vec2 coords) { return compensated(cameraYuv(coords)); }\n"

#define AVS_GLSL_MESH_GAIN_PROGRAMS(SOURCE)                                                                    \
    {AVS_GLSL_MESH_PROGRAM(SOURCE, AVS_GLSL_MATRIX_GAIN_SAMPLING, AVS_GLSL_PACKED_LUMA_MAIN("compensatedLuma")), \
     AVS_GLSL_MESH_PROGRAM(SOURCE, AVS_GLSL_MATRIX_GAIN_SAMPLING,                                              \
                           AVS_GLSL_PACKED_CHROMA_MAIN("compensatedChroma")),                                  \
     AVS_GLSL_MESH_PROGRAM(SOURCE, AVS_GLSL_MATRIX_GAIN_SAMPLING, AVS_GLSL_RGB_MAIN("compensatedYuv"))}

const char* const gMeshGainFragmentShaders[2][3] = {AVS_GLSL_MESH_GAIN_PROGRAMS(AVS_GLSL_MESH_SOURCE),
                                                    AVS_GLSL_MESH_GAIN_PROGRAMS(AVS_GLSL_MESH_SOURCE_FILTERED)};

// With one gain for all channels the matrix is diagonal: each plane is scaled on its own and
// reads nothing of the other.
#define AVS_GLSL_SCALAR_GAIN_LUMA                                                          \
    "uniform sampler2D outTexture;\n"                                                      \
    "uniform mat3 yuvGain;\n"                                                              \
    "float scaledLuma(vec2 s) { return yuvGain[0][0] * texture(outTexture, s).r; }\n"
#define AVS_GLSL_SCALAR_GAIN_CHROMA                                                        \
    "const float kChromaOffset = 128.0 / 255.0;\n"                                         \
    "layout(binding = 1) uniform sampler2D outTextureUV;\n"                                \
    "uniform mat3 yuvGain;\n"                                                              \
    "vec2 scaledChroma(vec2 s)\n"                                                          \
    "{\n"                                                                                  \
    "    return kChromaOffset + yuvGain[1][1] * (texture(outTextureUV, s).rg - kChromaOffset);\n" \
    "}\n"

#define AVS_GLSL_MESH_SCALAR_GAIN_PROGRAMS(SOURCE)                                                             \
    {AVS_GLSL_MESH_PROGRAM(SOURCE, AVS_GLSL_SCALAR_GAIN_LUMA, AVS_GLSL_PACKED_LUMA_MAIN("scaledLuma")),        \
     AVS_GLSL_MESH_PROGRAM(SOURCE, AVS_GLSL_SCALAR_GAIN_CHROMA, AVS_GLSL_PACKED_CHROMA_MAIN("scaledChroma"))}

const char* const gMeshScalarGainFragmentShaders[2][2] = {AVS_GLSL_MESH_SCALAR_GAIN_PROGRAMS(AVS_GLSL_MESH_SOURCE),
                                                          AVS_GLSL_MESH_SCALAR_GAIN_PROGRAMS(AVS_GLSL_MESH_SOURCE_FILTERED)};

// ---- the seam atlas: every seam of a level in one draw --------------------------------------

// Each quad carries the rectangles it reads, in texels of their textures, in the order
// A(l), B(l), A(l+1), B(l+1), result(l+1), alpha(l).
#define AVS_GLSL_ATLAS_VERTEX(LOCAL_DECLARATION, LOCAL) \
    "#version 310 es \n"                                 \
    "layout(location = 0) in vec2 aPosition;\n"          \
    "layout(location = 1) in vec2 aLocal;\n"             \
    "layout(location = 2) in vec4 aRect0;\n"             \
    "layout(location = 3) in vec4 aRect1;\n"             \
    "layout(location = 4) in vec4 aRect2;\n"             \
    "layout(location = 5) in vec4 aRect3;\n"             \
    "layout(location = 6) in vec4 aRect4;\n"             \
    "layout(location = 7) in vec4 aRect5;\n"             \
    LOCAL_DECLARATION                                    \
    "flat out vec4 vRect[6];\n"                          \
    "void main()\n"                                      \
    "{\n"                                                \
    "    vLocal = " LOCAL ";\n"                          \
    "    vRect[0] = aRect0; vRect[1] = aRect1; vRect[2] = aRect2;\n" \
    "    vRect[3] = aRect3; vRect[4] = aRect4; vRect[5] = aRect5;\n" \
    "    gl_Position = vec4(aPosition, 0.0, 1.0);\n"     \
    "}\n"

const char* const gSeamAtlasVertexShader = AVS_GLSL_ATLAS_VERTEX("out vec2 vLocal;\n", "aLocal");
// The output planes' passes: the seam's window packed as the blocks are.
const char* const gSeamAtlasOutputVertexShader =
    AVS_GLSL_ATLAS_VERTEX(AVS_GLSL_PACKED_COLUMNS_VERTEX, "blockLocal(aLocal)");

// A rectangle read as an edge-clamped texture of its own size would be; alpha nearest.
#define AVS_GLSL_ATLAS_READS                                                                  \
    "flat in vec4 vRect[6];\n"                                                               \
    "layout(binding = 0) uniform sampler2D levelN0;\n"                                       \
    "layout(binding = 1) uniform sampler2D levelN1;\n"                                       \
    "layout(binding = 2) uniform sampler2D resultN1;\n"                                      \
    "layout(binding = 3) uniform highp sampler2D alphaN0;\n"                                 \
    "vec4 inRect(sampler2D s, vec4 r, vec2 local)\n"                                         \
    "{\n"                                                                                    \
    "    vec2 p = clamp(r.xy + local * r.zw, r.xy + 0.5, r.xy + r.zw - 0.5);\n"              \
    "    return texture(s, p / vec2(textureSize(s, 0)));\n"                                  \
    "}\n"                                                                                    \
    "float alphaAt(vec4 r, vec2 local)\n"                                                    \
    "{\n"                                                                                    \
    "    ivec2 p = ivec2(r.xy) + clamp(ivec2(local * r.zw), ivec2(0), ivec2(r.zw) - 1);\n"   \
    "    return texelFetch(alphaN0, p, 0).r;\n"                                              \
    "}\n"                                                                                    \
    "vec4 lowestLevel(vec2 local)\n"                                                         \
    "{\n"                                                                                    \
    "    float alpha = alphaAt(vRect[5], local);\n"                                          \
    "    return inRect(levelN0, vRect[0], local) * alpha + inRect(levelN0, vRect[1], local) * (1.0 - alpha);\n" \
    "}\n"                                                                                    \
    "vec4 collapsedLevel(vec2 local)\n"                                                      \
    "{\n"                                                                                    \
    "    float alpha = alphaAt(vRect[5], local);\n"                                          \
    "    vec4 laplacA = (inRect(levelN0, vRect[0], local) - inRect(levelN1, vRect[2], local)) * alpha;\n" \
    "    vec4 laplacB = (inRect(levelN0, vRect[1], local) - inRect(levelN1, vRect[3], local)) * (1.0 - alpha);\n" \
    "    return inRect(resultN1, vRect[4], local) + laplacA + laplacB;\n"                    \
    "}\n"

#define AVS_GLSL_ATLAS_PROGRAM(INPUT, BODY) \
    "#version 310 es \n"                    \
    "precision highp float;\n"              \
    AVS_GLSL_BT601_FULL_RANGE               \
    INPUT                                   \
    AVS_GLSL_ATLAS_READS                    \
    "out vec4 FragColor;\n"                 \
    BODY

#define AVS_GLSL_ATLAS_LEVEL(LEVEL) \
    AVS_GLSL_ATLAS_PROGRAM("in vec2 vLocal;\n", "void main()\n{\n    FragColor = " LEVEL "(vLocal);\n}\n")

// The finest level into the packed planes, converted to YUV.
#define AVS_GLSL_ATLAS_LUMA(LEVEL)                                                                   \
    AVS_GLSL_ATLAS_PROGRAM(AVS_GLSL_PACKED_COLUMNS_FRAGMENT,                                         \
        "float lumaAt(vec2 local) { return rgbToYuv601Full(" LEVEL "(local).xyz).x; }\n"              \
        "void main()\n"                                                                              \
        "{\n"                                                                                        \
        "    FragColor = vec4(lumaAt(pixelLocal(-1.5)), lumaAt(pixelLocal(-0.5)), lumaAt(pixelLocal(0.5)),\n" \
        "                     lumaAt(pixelLocal(1.5)));\n"                                           \
        "}\n")
#define AVS_GLSL_ATLAS_CHROMA(LEVEL)                                                                 \
    AVS_GLSL_ATLAS_PROGRAM(AVS_GLSL_PACKED_COLUMNS_FRAGMENT,                                         \
        "vec2 chromaAt(vec2 local) { return rgbToYuv601Full(" LEVEL "(local).xyz).yz; }\n"            \
        "void main()\n"                                                                              \
        "{\n"                                                                                        \
        "    FragColor = vec4(chromaAt(pixelLocal(-0.5)), chromaAt(pixelLocal(0.5)));\n"             \
        "}\n")

const char* const gSeamAtlasFragmentShaders[7] = {
    AVS_GLSL_ATLAS_PROGRAM("in vec2 vLocal;\n", "void main()\n{\n    FragColor = inRect(levelN0, vRect[0], vLocal);\n}\n"),
    AVS_GLSL_ATLAS_LEVEL("lowestLevel"),
    AVS_GLSL_ATLAS_LEVEL("collapsedLevel"),
    AVS_GLSL_ATLAS_LUMA("collapsedLevel"),
    AVS_GLSL_ATLAS_CHROMA("collapsedLevel"),
    AVS_GLSL_ATLAS_LUMA("lowestLevel"),
    AVS_GLSL_ATLAS_CHROMA("lowestLevel"),
};

RemapShaderTexts remapShaderTexts(bool portable)
{
    if (portable)
        return {gRemapVertexShader, gPortableRemapFragmentShaderYUV, gPortableRemapFragmentShaderRGB,
                gPortableRemapFragmentShaderRGBtoYUV, gPortableRemapFragmentShaderChroma};
    return {gRemapVertexShader, gRemapFragmentShaderYUV, gRemapFragmentShaderRGB, gRemapFragmentShaderRGBtoYUV,
            nullptr};
}

const char* blendYuvFragmentText(bool portable)
{
    return portable ? gPortableFragmentShader_blendYUV : gFragmentShader_blendYUV;
}

const char* blendChromaFragmentText()
{
    return gPortableFragmentShader_blendChroma;
}

}  // namespace zqgfx_gpu_avs
