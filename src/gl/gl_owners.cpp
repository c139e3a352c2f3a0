// Constructors of the owned GL objects of gl_owners.h.
#include "gl/gl_owners.h"

#include <cstdint>

#include "gl/common_resource.h"
#include "gl/import_core.h"

namespace zqgfx_gpu_avs {

namespace {

struct PixelTransfer {
    GLenum format;
    GLenum type;
};

PixelTransfer transferOf(GLenum internalFormat)
{
    switch (internalFormat) {
    case GL_R8: return {GL_RED, GL_UNSIGNED_BYTE};
    case GL_R32F: return {GL_RED, GL_FLOAT};
    case GL_RG32F: return {GL_RG, GL_FLOAT};
    default: return {GL_RGBA, GL_UNSIGNED_BYTE};
    }
}

}  // namespace

void EglImage::reset()
{
    if (image_ != EGL_NO_IMAGE_KHR) eglImageProcs().destroyImage(dpy_, image_);
    image_ = EGL_NO_IMAGE_KHR;
}

GlTexture makeTexture(GLenum internalFormat, int w, int h, bool linear)
{
    GLuint name = 0;
    glGenTextures(1, &name);
    GlTexture texture(name);
    glBindTexture(GL_TEXTURE_2D, name);
    const GLint filter = linear ? GL_LINEAR : GL_NEAREST;
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, filter);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, filter);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    const PixelTransfer transfer = transferOf(internalFormat);
    glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(internalFormat), w, h, 0, transfer.format, transfer.type,
                 nullptr);
    const bool made = checkGlError("glTexImage2D");
    glBindTexture(GL_TEXTURE_2D, 0);
    if (!made) texture.reset();
    return texture;
}

GlFramebuffer makeFramebuffer(GLuint texture)
{
    GLuint name = 0;
    glGenFramebuffers(1, &name);
    GlFramebuffer fbo(name);
    const bool complete = attachColourTexture(name, GL_TEXTURE_2D, texture);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    if (!complete) fbo.reset();
    return fbo;
}

GlVertexArray makeVertexArray(GLuint buffer, const int* sizes, int count)
{
    GLuint name = 0;
    glGenVertexArrays(1, &name);
    GlVertexArray vao(name);
    glBindVertexArray(name);
    glBindBuffer(GL_ARRAY_BUFFER, buffer);
    int stride = 0;
    for (int k = 0; k < count; ++k) stride += sizes[k];
    int offset = 0;
    for (int k = 0; k < count; ++k) {
        glVertexAttribPointer(static_cast<GLuint>(k), sizes[k], GL_FLOAT, GL_FALSE,
                              stride * static_cast<GLsizei>(sizeof(GLfloat)),
                              reinterpret_cast<const void*>(static_cast<intptr_t>(offset) * sizeof(GLfloat)));
        glEnableVertexAttribArray(static_cast<GLuint>(k));
        offset += sizes[k];
    }
    glBindVertexArray(0);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    if (!checkGlError("glVertexAttribPointer")) vao.reset();
    return vao;
}

GlProgram makeProgram(const char* vertexText, const char* fragmentText)
{
    const GLuint vertexShader = compileShaderReportingLog(GL_VERTEX_SHADER, vertexText, true);
    if (vertexShader == 0) return GlProgram();
    const GLuint fragmentShader = compileShaderReportingLog(GL_FRAGMENT_SHADER, fragmentText, true);
    if (fragmentShader == 0) {
        glDeleteShader(vertexShader);
        return GlProgram();
    }
    return GlProgram(linkProgramReportingLog(vertexShader, fragmentShader, ProgramLinkPolicy{true, nullptr, false}));
}

}  // namespace zqgfx_gpu_avs
