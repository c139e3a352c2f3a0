// The texts of the path in use, for the engines that build one program for every path.
#include "shaders/avs_shader_texts.h"
#include "io/plane_io.h"

namespace zqgfx_gpu_avs {

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
