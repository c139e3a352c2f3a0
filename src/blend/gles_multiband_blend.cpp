// Multiband blend engine: shader programs, set-up and tear-down.
#include "blend/gles_multiband_blend.h"

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include "gl/DebugLog.h"
#include "shaders/avs_shader_texts.h"
#include "io/plane_io.h"

namespace zqgfx_gpu_avs {

namespace {

// Two triangles covering the viewport; texture (0,0) lands on its lower-left corner.
const GLfloat gTriangleVertices[] = {-1.0f, 1.0f, -1.0f, -1.0f, 1.0f, -1.0f,
                                     1.0f,  -1.0f, 1.0f, 1.0f,  -1.0f, 1.0f};
const GLfloat gtexVertices[] = {0.0f, 1.0f, 0.0f, 0.0f, 1.0f, 0.0f, 1.0f, 0.0f, 1.0f, 1.0f, 0.0f, 1.0f};

// The shared vertex shader's inputs sit at these locations in every program, so the locations
// looked up in the copy program serve all four.
constexpr GLuint kPositionLocation = 0;
constexpr GLuint kTexCoordsLocation = 1;

[[maybe_unused]] void checkEglError(const char* op, EGLBoolean returnVal = EGL_TRUE)
{
    if (returnVal != EGL_TRUE) fprintf(stderr, "%s() returned %d\n", op, returnVal);
    for (EGLint error = eglGetError(); error != EGL_SUCCESS; error = eglGetError())
        fprintf(stderr, "after %s() eglError (0x%x)\n", op, error);
}

struct UniformLookup {
    GLuint* handle;
    const char* name;
};

// Each lookup is checked under the attribute lookup's name [kept:K9].
void lookUpUniforms(GLuint program, std::initializer_list<UniformLookup> lookups)
{
    for (const UniformLookup& lookup : lookups) {
        *lookup.handle = static_cast<GLuint>(glGetUniformLocation(program, lookup.name));
        checkGlError("glGetAttribLocation");
    }
}

}  // namespace

// ---- programs --------------------------------------------------------------------------------

zqglMultibandBlend::~zqglMultibandBlend() = default;

// Logs are printed as the driver wrote them; a failed compile without a log hands the shader back.
GLuint zqglMultibandBlend::loadShader(GLenum shaderType, const char* pSource)
{
    return compileShaderReportingLog(shaderType, pSource, false);
}

GLuint zqglMultibandBlend::createProgram(const char* pVertexSource, const char* pFragmentSource)
{
    GLuint vertexShader = loadShader(GL_VERTEX_SHADER, pVertexSource);
    if (vertexShader == 0) return 0;
    GLuint pixelShader = loadShader(GL_FRAGMENT_SHADER, pFragmentSource);
    if (pixelShader == 0) {
        glDeleteShader(vertexShader);
        return 0;
    }
    // The shared vertex inputs get fixed locations before the link; the shaders go with the program.
    auto bindInputs = [](GLuint program) {
        glBindAttribLocation(program, kPositionLocation, "vPosition");
        glBindAttribLocation(program, kTexCoordsLocation, "texCoords");
    };
    return linkProgramReportingLog(vertexShader, pixelShader, ProgramLinkPolicy{false, bindInputs, false});
}

int zqglMultibandBlend::setupGraphics()
{
    gProgram = createProgram(gVertexShader, gFragmentShader);
    if (gProgram == 0) return 0;
    // The attribute locations serve every pass, also a frame whose seams all have one level.
    get_program_handle(gProgram);
    gProgram_lowest = createProgram(gVertexShader, gFragmentShader_lowest);
    if (gProgram_lowest == 0) return 0;
    gProgram_blend = createProgram(gVertexShader, gFragmentShader_blend);
    if (gProgram_blend == 0) return 0;
    gProgram_blendYUV = createProgram(gVertexShader, blendYuvFragmentText(portablePath()));
    if (gProgram_blendYUV == 0) return 0;
    if (portablePath()) {
        gProgram_blendChroma = createProgram(gVertexShader, blendChromaFragmentText());
        if (gProgram_blendChroma == 0) return 0;
    }
    return 1;
}

void zqglMultibandBlend::get_program_handle(GLuint program)
{
    gvPositionHandle = static_cast<GLuint>(glGetAttribLocation(program, "vPosition"));
    checkGlError("glGetAttribLocation");
    gvTextureTexCoordsHandle = static_cast<GLuint>(glGetAttribLocation(program, "texCoords"));
    checkGlError("glGetAttribLocation");
    lookUpUniforms(program, {{&gvTextureSamplerHandle, "textureSamp"}});
}

void zqglMultibandBlend::get_prog_lowest_handle(GLuint program)
{
    lookUpUniforms(program, {{&gtexGaussASamplerHandle_lowest, "texGaussA"},
                             {&gtexGaussBSamplerHandle_lowest, "texGaussB"},
                             {&gtexAlphaSamplerHandle_lowest, "texAlpha"}});
}

void zqglMultibandBlend::get_prog_blend_handle(GLuint program)
{
    lookUpUniforms(program, {{&gtexGaussA_n0_SamplerHandle_blend, "texGaussA_n0"},
                             {&gtexGaussB_n0_SamplerHandle_blend, "texGaussB_n0"},
                             {&gtexGaussA_n1_SamplerHandle_blend, "texGaussA_n1"},
                             {&gtexGaussB_n1_SamplerHandle_blend, "texGaussB_n1"},
                             {&gtexResult_n1_SamplerHandle_blend, "texResult_n1"},
                             {&gtexAlphaSamplerHandle_blend, "texAlpha"}});
}

// The quad comes from client memory, so no buffer object may be bound to GL_ARRAY_BUFFER.
// With `checkEach`, each pointer call is checked and a GL error fails the call.
bool zqglMultibandBlend::bindQuadAttributes(bool checkEach)
{
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glVertexAttribPointer(gvPositionHandle, 2, GL_FLOAT, GL_FALSE, 0, gTriangleVertices);
    if (checkEach && !checkGlError("glVertexAttribPointer")) return false;
    glEnableVertexAttribArray(gvPositionHandle);
    glVertexAttribPointer(gvTextureTexCoordsHandle, 2, GL_FLOAT, GL_FALSE, 0, gtexVertices);
    if (checkEach && !checkGlError("glVertexAttribPointer")) return false;
    glEnableVertexAttribArray(gvTextureTexCoordsHandle);
    return true;
}

// Debugging aid: draws the copy program into the bound framebuffer.
int zqglMultibandBlend::renderFrame()
{
    glClearColor(0.0f, 0.0f, 1.0f, 1.0f);
    checkGlError("glClearColor");
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    checkGlError("glClear");
    glUseProgram(gProgram);
    checkGlError("glUseProgram");
    if (!bindQuadAttributes(true)) return -1;
    glDrawArrays(GL_TRIANGLES, 0, kQuadVertexCount);
    return checkGlError("glDrawArrays") ? 0 : -1;
}

// Debugging aid: writes a block of pixels to the dump directory.
int zqglMultibandBlend::dumpPixels_new(int index, int inWindowWidth, int inWindowHeight, char* pPixelDataFront,
                                       const char* format, int size)
{
    char path[100];
    snprintf(path, sizeof(path), "/usr/data/dump/dumplayer_%d_%dx%d_%s.bin", index, inWindowWidth, inWindowHeight,
             format);
    FILE* file = fopen(path, "wb+");
    if (file == nullptr) {
        printf("Could not open /%s \n", path);
        return -1;
    }
    if (size > 0 && pPixelDataFront != nullptr) fwrite(pPixelDataFront, static_cast<size_t>(size), 1, file);
    fclose(file);
    printf("open %s and write ok\n", path);
    return 0;
}

// ---- engine life cycle -----------------------------------------------------------------------

int zqglMultibandBlend::initMultibandBlend(multibandResource* init_resource, int* do_blend_array)
{
    AvsTimer timer;
    if (init_resource == nullptr) {
        AVS_LOGE("init_resource params is NULL!");
        return -1;
    }
    _multiResource = init_resource;  // the programs follow the path chosen with the context
    if (setupGraphics() == 0) {
        fprintf(stderr, "Could not set up graphics.\n");
        return -1;
    }
    if (init_multibandBlend_resource(init_resource, do_blend_array) < 0) {
        AVS_LOGE("init_multibandBlend_resource params failed!");
        return -1;
    }
    AVS_LOG_TIME(timer);
    return 0;
}

int zqglMultibandBlend::updateMultibandBlend(multibandResource* init_resource, int* do_blend_array)
{
    delete_multibandBlend_resource(do_blend_array);
    if (init_multibandBlend_resource(init_resource, do_blend_array) < 0) {
        AVS_LOGE("init_multibandBlend_resource params failed!");
        return -1;
    }
    return 0;
}

int zqglMultibandBlend::deinitMultibandBlend(int* do_blend_array)
{
    AvsTimer timer;
    delete_multibandBlend_resource(do_blend_array);
    compensation.release();
    if (_multiResource != nullptr && _multiResource->compensation == &compensation) _multiResource->compensation = nullptr;
    for (GLuint* program : {&gProgram, &gProgram_blend, &gProgram_blendYUV, &gProgram_lowest}) {
        glDeleteProgram(*program);
        *program = 0;
    }
    if (gProgram_blendChroma != 0) glDeleteProgram(gProgram_blendChroma);
    gProgram_blendChroma = 0;
    AVS_LOG_TIME(timer);
    return 0;
}

}  // namespace zqgfx_gpu_avs
