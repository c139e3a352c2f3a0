// The one way a dma-buf (or one plane of it) becomes a texture: an EGL image of the buffer, a
// texture bound to it and, when asked, a framebuffer around the texture. Every importer of the
// library is a thin call of importDmaBuf; they differ only in the steps below, which keep each
// importer's own calls, traces and order. Beside it, the one way a framebuffer is put around a
// texture, which every framebuffer builder uses.
#ifndef ZQGFX_AVS_IMPORT_CORE_H
#define ZQGFX_AVS_IMPORT_CORE_H

#include "gl/common_resource.h"
#include "gl/gl_owners.h"

namespace zqgfx_gpu_avs {

// How one importer goes about it. The defaults: a GL_TEXTURE_2D texture, its parameters set
// after the image is bound, nothing traced, no framebuffer, everything released on failure.
struct DmaBufImportSteps {
    const char* function = "";        // names the trace lines
    GLenum target = GL_TEXTURE_2D;    // or GL_TEXTURE_EXTERNAL_OES
    bool parametersFirst = false;     // linear, clamped parameters set before the image is bound
    bool traceGenTexture = false;     // glGenTextures traced
    bool traceParameters = false;     // the bind and each parameter traced (parametersFirst only)
    const char* bindText = nullptr;   // trace text of the image bind; null: not traced
    const char* traceEnd = "\n";      // end of every trace line: "\n", or "" for none
    bool framebuffer = false;         // a framebuffer around the texture as well
    const char* attachText = nullptr; // trace text of the attachment; null: not traced
    bool checkErrors = false;         // a GL error after the bind or the attachment fails the import
    bool keepOnFailure = false;       // a failed import leaves what it made (the interface's importers)
    bool unbindTexture = false;       // leave no texture bound on success
};

// The step that failed, if any.
enum class ImportFailure { none, image, texture, framebuffer };

// What an import made. Released with the object unless the caller takes the names over.
struct DmaBufImport {
    GlTexture texture;
    GlFramebuffer framebuffer;  // only when asked for
    ImportFailure failure = ImportFailure::none;

    bool ok() const { return failure == ImportFailure::none; }
};

// Imports the image that `attribs` describe as `steps` say. On success the image is released (the
// texture keeps the buffer) and the framebuffer, if any, is unbound. On failure what was made is
// released, in reverse order, unless `steps.keepOnFailure`; then the names are still handed back
// and the image is left alive, the framebuffer bound.
DmaBufImport importDmaBuf(EGLDisplay dpy, const EglAttribList& attribs, const DmaBufImportSteps& steps);

// Binds `fbo` and attaches `texture` (of `target`) as its colour; true when the framebuffer is
// complete. The attachment is traced in the name of `function` when `attachText` is given.
bool attachColourTexture(GLuint fbo, GLenum target, GLuint texture, const char* function = nullptr,
                         const char* attachText = nullptr, const char* traceEnd = "\n");

// A linear, clamped RGB texture of `w` x `h` and a framebuffer around it, both left bound; false
// when the framebuffer is incomplete (the names are handed back all the same).
bool makeRgbTarget(int w, int h, GLuint* texture, GLuint* fbo);

}  // namespace zqgfx_gpu_avs

#endif  // ZQGFX_AVS_IMPORT_CORE_H
