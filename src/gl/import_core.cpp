// The import core and the framebuffer builder of import_core.h.
#include "gl/import_core.h"

#include <cstdio>

namespace zqgfx_gpu_avs {

namespace {

// The GL trace in the name of `function`: a debug line before the call, an error line when
// glGetError reports one, and a debug "succeeded" line after it in any case. The error does not
// change the control flow. Both line forms repeat the one line number, as the callers' own
// traces do.
template <class Call>
void traceCall(const char* function, const char* text, const char* end, Call call)
{
    constexpr int kLine = __LINE__;
    const bool debug = AvsLogLevel() > 2;
    if (debug) printf("libzqgfx_avs: %s(%d): >>> %s (%s:%d)%s\n", function, kLine, text, function, kLine, end);
    call();
    const GLenum error = glGetError();
    if (error != GL_NO_ERROR)
        printf("libzqgfx_avs: %s,line=%d: ERROR: <<< %s: failed: 0x%04x ( ) (%s:%d)%s\n", function, kLine, text,
               error, function, kLine, end);
    if (debug)
        printf("libzqgfx_avs: %s(%d): <<< %s: succeeded (%s:%d)%s\n", function, kLine, text, function, kLine, end);
}

// Runs `call`, traced when `text` is given.
template <class Call>
void maybeTraced(const DmaBufImportSteps& steps, const char* text, Call call)
{
    if (text != nullptr)
        traceCall(steps.function, text, steps.traceEnd, call);
    else
        call();
}

// The linear, clamped parameters; the external target's framebuffer imports trace each one.
void setParameters(const DmaBufImportSteps& steps)
{
    const GLenum t = steps.target;
    if (!steps.traceParameters) {
        setLinearClampParameters(t);
        return;
    }
    struct Parameter {
        GLenum name;
        GLint value;
        const char* text;
    };
    static const Parameter kParameters[] = {
        {GL_TEXTURE_MAG_FILTER, GL_LINEAR,
         "glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_MAG_FILTER, GL_LINEAR)"},
        {GL_TEXTURE_MIN_FILTER, GL_LINEAR,
         "glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_MIN_FILTER, GL_LINEAR)"},
        {GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE,
         "glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE)"},
        {GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE,
         "glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE)"},
    };
    for (const Parameter& p : kParameters) maybeTraced(steps, p.text, [&] { glTexParameteri(t, p.name, p.value); });
}

// Generates the texture and binds the image to it, in the importer's order.
GLuint textureOfImage(EGLImageKHR image, const DmaBufImportSteps& steps)
{
    const GLenum t = steps.target;
    GLuint texture = 0;
    maybeTraced(steps, steps.traceGenTexture ? "glGenTextures(1, fbo_texture)" : nullptr,
                [&] { glGenTextures(1, &texture); });
    maybeTraced(steps, steps.traceParameters ? "glBindTexture(GL_TEXTURE_EXTERNAL_OES, texture)" : nullptr,
                [&] { glBindTexture(t, texture); });
    if (steps.parametersFirst) setParameters(steps);
    maybeTraced(steps, steps.bindText, [&] { eglImageProcs().imageTargetTexture2D(t, image); });
    if (!steps.parametersFirst) setLinearClampParameters(t);
    return texture;
}

}  // namespace

bool attachColourTexture(GLuint fbo, GLenum target, GLuint texture, const char* function, const char* attachText,
                         const char* traceEnd)
{
    glBindFramebuffer(GL_FRAMEBUFFER, fbo);
    const auto attach = [&] { glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, target, texture, 0); };
    if (attachText != nullptr)
        traceCall(function, attachText, traceEnd, attach);
    else
        attach();
    return glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
}

DmaBufImport importDmaBuf(EGLDisplay dpy, const EglAttribList& attribs, const DmaBufImportSteps& steps)
{
    DmaBufImport made;
    EglImage image(dpy, createDmaBufImage(dpy, eglImageProcs(), attribs));
    if (!image) {
        made.failure = ImportFailure::image;
        return made;
    }
    made.texture.reset(textureOfImage(image.get(), steps));
    if (steps.checkErrors && glGetError() != GL_NO_ERROR) {
        made.failure = ImportFailure::texture;
    } else if (steps.framebuffer) {
        GLuint fbo = 0;
        glGenFramebuffers(1, &fbo);
        made.framebuffer.reset(fbo);
        const bool complete = attachColourTexture(fbo, steps.target, made.texture.get(), steps.function,
                                                  steps.attachText, steps.traceEnd);
        if (!complete || (steps.checkErrors && glGetError() != GL_NO_ERROR))
            made.failure = ImportFailure::framebuffer;
    }
    if (!made.ok()) {
        if (steps.keepOnFailure) {
            image.release();  // left alive on purpose: the framebuffer importers keep what they made [kept:K17]
        } else {
            made.framebuffer.reset();
            made.texture.reset();
        }
        return made;  // the image, if not kept, goes last
    }
    image.reset();  // the texture keeps the buffer
    if (steps.framebuffer) glBindFramebuffer(GL_FRAMEBUFFER, 0);
    if (steps.unbindTexture) glBindTexture(steps.target, 0);
    return made;
}

bool makeRgbTarget(int w, int h, GLuint* texture, GLuint* fbo)
{
    glGenTextures(1, texture);
    glGenFramebuffers(1, fbo);
    glBindTexture(GL_TEXTURE_2D, *texture);
    setLinearClampParameters(GL_TEXTURE_2D);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGB, w, h, 0, GL_RGB, GL_UNSIGNED_BYTE, nullptr);
    checkGlError("glTexImage2D");
    return attachColourTexture(*fbo, GL_TEXTURE_2D, *texture);
}

}  // namespace zqgfx_gpu_avs
