// On the machine's real EGL/GLES driver: the remap engine's context (with its fallbacks for
// machines without a window system), the shader texts the driver can build, and fences.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

#include "avs_shader_texts.h"
#include "gl_nv12_remap.h"
#include "gles_multiband_blend.h"

using namespace zqgfx_gpu_avs;

namespace {

class RealDriver : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        engine = new (calloc(1, sizeof(ZQGL_Remap))) ZQGL_Remap;
        testing::internal::CaptureStderr();  // compile logs of texts this driver may refuse
        engine->ZQ_EGL_Init(&resource);
        initLog = testing::internal::GetCapturedStderr();
    }

    static void TearDownTestSuite()
    {
        engine->ZQ_EGL_Deinit();
        engine->~ZQGL_Remap();
        free(engine);
    }

    void SetUp() override
    {
        if (engine->context != EGL_NO_CONTEXT && eglGetCurrentContext() == engine->context &&
            resource.context == engine->context)
            return;
        if (getenv("ZQAVS_NO_EGL") != nullptr) GTEST_SKIP() << "ZQAVS_NO_EGL: this machine has no EGL";
        FAIL() << "no EGL context could be made:\n" << initLog;
    }

    static ZQGL_Remap* engine;
    static multibandResource resource;
    static std::string initLog;
};

ZQGL_Remap* RealDriver::engine = nullptr;
multibandResource RealDriver::resource{};
std::string RealDriver::initLog;

TEST_F(RealDriver, PlainTextsBuildAndBlendProgramsShareAttributeLocations)
{
    GLint position = -1, coords = -1;
    for (const char* fragment : {gFragmentShader, gFragmentShader_lowest, gFragmentShader_blend}) {
        GLuint program = engine->createProgram(gVertexShader, fragment);
        ASSERT_NE(program, 0u) << fragment;
        GLint p = glGetAttribLocation(program, "vPosition"), c = glGetAttribLocation(program, "texCoords");
        EXPECT_TRUE(p >= 0 && c >= 0);
        if (position < 0) position = p, coords = c;
        EXPECT_EQ(p, position) << fragment;
        EXPECT_EQ(c, coords) << fragment;
        glDeleteProgram(program);
    }
    // The remap vertex text, linked with a fragment text the driver surely builds.
    GLuint program = engine->createProgram(gRemapVertexShader, gFragmentShader);
    EXPECT_NE(program, 0u);
    glDeleteProgram(program);
}

TEST_F(RealDriver, YuvTextsBuildExactlyWhenTheDriverOffersYuvTargets)
{
    for (const char* text : {gRemapFragmentShaderYUV, gRemapFragmentShaderRGB, gRemapFragmentShaderRGBtoYUV,
                             gFragmentShader_blendYUV}) {
        testing::internal::CaptureStderr();
        GLuint shader = engine->loadShader(GL_FRAGMENT_SHADER, text);
        std::string log = testing::internal::GetCapturedStderr();
        if (resource.caps.has_GL_EXT_YUV_target) {
            EXPECT_NE(shader, 0u) << log;
        } else {  // refused, and reported with the driver's log
            EXPECT_EQ(shader, 0u);
            EXPECT_EQ(log.find("Could not compile shader 35632:\n"), 0u) << log;
        }
        glDeleteShader(shader);
    }
}

TEST_F(RealDriver, FenceOfFlushedWorkSignalsAndIsReleased)
{
    glClear(GL_COLOR_BUFFER_BIT);
    glFlush();
    void* sync = engine->gles_create_sync();
    ASSERT_NE(sync, nullptr);
    EXPECT_EQ(engine->gles_wait_sync(sync), 0);
    EXPECT_EQ(eglGetError(), EGL_SUCCESS);
}

}  // namespace
