// The target path's GLSL texts are fixed by the interface byte for byte; since they are composed
// from files at build time, a stray edit to a shared piece would change them unnoticed.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "shaders/avs_shader_texts.h"

namespace zqgfx_gpu_avs {
namespace {

uint64_t fnv1a64(const char* text)
{
    uint64_t hash = 0xcbf29ce484222325ull;
    for (const char* c = text; *c; ++c) hash = (hash ^ static_cast<unsigned char>(*c)) * 0x100000001b3ull;
    return hash;
}

TEST(ShaderTexts, TheTargetPathsTextsKeepTheirBytes)
{
    struct Fixed {
        const char* name;
        const char* text;
        size_t bytes;
        uint64_t hash;
    };
    const Fixed fixed[] = {
        {"gRemapVertexShader", gRemapVertexShader, 184, 0x7d9d9f898c458862ull},
        {"gRemapFragmentShaderYUV", gRemapFragmentShaderYUV, 281, 0x3b2a8df882dbbc61ull},
        {"gRemapFragmentShaderRGB", gRemapFragmentShaderRGB, 353, 0x1d13d64813df2620ull},
        {"gRemapFragmentShaderRGBtoYUV", gRemapFragmentShaderRGBtoYUV, 290, 0xb3bbe753f2ec0ebdull},
        {"gVertexShader", gVertexShader, 153, 0x80b7ea1b46c6c7f0ull},
        {"gFragmentShader", gFragmentShader, 181, 0x231fc60afcacfd9dull},
        {"gFragmentShader_lowest", gFragmentShader_lowest, 360, 0x98167c3af598f389ull},
        {"gFragmentShader_blend", gFragmentShader_blend, 628, 0x369c19f50d5e7114ull},
        {"gFragmentShader_blendYUV", gFragmentShader_blendYUV, 787, 0xba13c26ba93e42f7ull},
    };
    for (const Fixed& f : fixed) {
        EXPECT_EQ(std::strlen(f.text), f.bytes) << f.name;
        EXPECT_EQ(fnv1a64(f.text), f.hash) << f.name << ":\n" << f.text;
    }
}

}  // namespace
}  // namespace zqgfx_gpu_avs
