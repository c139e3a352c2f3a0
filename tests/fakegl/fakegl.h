// A scriptable fake EGL + GLES driver for tests. It defines the EGL and GLES entry points the
// library calls, records every call with its arguments, hands out object names and lets a test
// inject failures. It renders nothing, and expects one thread.
#ifndef ZQGFX_AVS_FAKEGL_H
#define ZQGFX_AVS_FAKEGL_H

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl31.h>
#include <GLES2/gl2ext.h>

#include <cstdint>
#include <string>
#include <vector>

namespace fakegl {

struct Call {
    std::string fn;                // entry point name, e.g. "glDrawArrays"
    std::vector<int64_t> args;     // scalar arguments in order (pointers as integers, floats truncated)
    std::vector<EGLint> attribs;   // EGL attribute list, up to and including EGL_NONE
    std::string text;              // string argument: attribute, uniform or entry point name
};

// What the next calls should do. Defaults describe a conforming target driver.
struct Injection {
    bool noDisplay = false;            // eglGetDisplay returns EGL_NO_DISPLAY
    bool initializeFails = false;      // eglInitialize returns EGL_FALSE
    bool initializeFailsOnDefaultDisplay = false;  // only the eglGetDisplay display fails eglInitialize
    int numConfigs = 1;                // configs reported by eglChooseConfig
    bool noWindowConfigs = false;      // configs lack EGL_WINDOW_BIT: none match a request for one
    bool noContext = false;            // eglCreateContext returns EGL_NO_CONTEXT
    bool makeCurrentFails = false;
    int nullImageFrom = 0;             // eglCreateImageKHR returns EGL_NO_IMAGE_KHR from this (1-based) call on; 0: never
    GLenum framebufferStatus = GL_FRAMEBUFFER_COMPLETE;
    int failCompileAt = 0;             // the n-th glCompileShader (1-based) fails; 0: none
    std::string compileLog;            // info log of a failed compile; empty means length 0
    int failLinkAt = 0;                // the n-th glLinkProgram (1-based) fails; 0: none
    std::string linkLog;
    bool noSync = false;               // eglCreateSyncKHR returns EGL_NO_SYNC_KHR
    EGLint clientWaitResult = EGL_CONDITION_SATISFIED_KHR;
    bool zeroBufferName = false;       // glGenBuffers hands out 0
    std::string eglExtensions = "EGL_KHR_image_base EGL_EXT_image_dma_buf_import "
                                "EGL_EXT_image_dma_buf_import_modifiers EGL_KHR_fence_sync";
    std::string eglClientExtensions = "EGL_EXT_platform_base";
    int devices = 1;                   // EGL devices listed by eglQueryDevicesEXT
    bool noClientExtensions = false;   // EGL 1.4: the EGL_NO_DISPLAY query fails with EGL_BAD_DISPLAY
    std::string glExtensions = "GL_OES_EGL_image GL_OES_EGL_image_external GL_EXT_YUV_target";
    // Answers of glGetIntegerv; other queries leave their output untouched.
    GLint maxTextureSize = 16384;
    GLint maxRenderbufferSize = 16384;
    GLint maxTextureImageUnits = 16;
};

void reset();                      // forget calls, objects and injections; names restart at 1
Injection& inject();

// The GL error raised right after the n-th next call to `fn`, returned by glGetError in order.
void failCall(const std::string& fn, GLenum error, int nth = 1);

const std::vector<Call>& calls();
std::vector<Call> callsTo(const std::string& fn);
size_t countCalls(const std::string& fn);

// Objects created and not yet deleted, by kind: "texture", "framebuffer", "buffer", "program",
// "shader", "image", "sync", "surface", "context", "display". Deleting a name twice or a name
// never created is counted in doubleDeletes(); name 0 and null handles are not.
size_t liveObjects(const std::string& kind);
size_t createdObjects(const std::string& kind);
size_t doubleDeletes();
bool isLive(const std::string& kind, uint64_t name);

// Value of `name` in a recorded EGL attribute list, or `missing` when absent.
EGLint attribValue(const Call& call, EGLint name, EGLint missing = -1);

}  // namespace fakegl

#endif  // ZQGFX_AVS_FAKEGL_H
