// GLES entry points with behaviour: object names, errors, shader status, queries.
#include "fakegl_internal.h"

#include <algorithm>
#include <cstring>

using namespace fakegl::detail;

namespace {

void genNames(const char* fn, const char* kind, GLsizei n, GLuint* names, bool handOutZero = false) {
    record(fn, n, names);
    for (GLsizei i = 0; i < n && names != nullptr; ++i)
        names[i] = handOutZero ? 0 : static_cast<GLuint>(createObject(kind));
}

// Name 0 is silently ignored, as GL does.
void deleteNames(const char* fn, const char* kind, GLsizei n, const GLuint* names) {
    record(fn, n, names);
    for (GLsizei i = 0; i < n && names != nullptr; ++i) destroyObject(kind, names[i]);
}

// The n-th compile or link (1-based) fails when injected; its log is the injected one.
void build(const char* fn, const char* kind, GLuint object, int failAt) {
    record(fn, object);
    state().built[{kind, object}] = static_cast<int>(state().callCounts[fn]) != failAt;
}

// The log of a failed compile or link; none for one that succeeded or never ran.
std::string buildLog(const char* kind, GLuint object) {
    auto it = state().built.find({kind, object});
    if (it == state().built.end() || it->second) return "";
    return std::string(kind) == "shader" ? inj().compileLog : inj().linkLog;
}

void getBuildStatus(const char* fn, const char* kind, GLuint object, GLenum pname, GLint* params) {
    record(fn, object, pname, params);
    const std::string log = buildLog(kind, object);
    if (pname == GL_COMPILE_STATUS || pname == GL_LINK_STATUS)
        *params = state().built[{kind, object}] ? GL_TRUE : GL_FALSE;  // never built: false
    else
        *params = pname == GL_INFO_LOG_LENGTH && !log.empty() ? static_cast<GLint>(log.size() + 1) : 0;
}

void getBuildLog(const char* fn, const char* kind, GLuint object, GLsizei bufSize, GLsizei* length, GLchar* out) {
    record(fn, object, bufSize, length, out);
    const std::string log = buildLog(kind, object);
    GLsizei n = 0;
    if (out != nullptr && bufSize > 0) {
        n = static_cast<GLsizei>(std::min(log.size(), static_cast<size_t>(bufSize - 1)));
        std::memcpy(out, log.data(), static_cast<size_t>(n));
        out[n] = '\0';
    }
    if (length != nullptr) *length = n;
}

}  // namespace

void fakegl::detail::glEGLImageTargetTexture2DOES(GLenum target, GLeglImageOES image) {
    record("glEGLImageTargetTexture2DOES", target, image);
    if (!fakegl::isLive("image", nameOf(image))) state().raisedGlErrors.push_back(GL_INVALID_VALUE);
}

extern "C" {

GLenum glGetError(void) {
    record("glGetError");
    std::deque<GLenum>& raised = state().raisedGlErrors;
    if (raised.empty()) return GL_NO_ERROR;
    const GLenum error = raised.front();
    raised.pop_front();
    return error;
}

void glGenTextures(GLsizei n, GLuint* textures) { genNames("glGenTextures", "texture", n, textures); }
void glDeleteTextures(GLsizei n, const GLuint* textures) { deleteNames("glDeleteTextures", "texture", n, textures); }
void glGenFramebuffers(GLsizei n, GLuint* fbos) { genNames("glGenFramebuffers", "framebuffer", n, fbos); }
void glDeleteFramebuffers(GLsizei n, const GLuint* fbos) { deleteNames("glDeleteFramebuffers", "framebuffer", n, fbos); }
void glGenBuffers(GLsizei n, GLuint* buffers) { genNames("glGenBuffers", "buffer", n, buffers, inj().zeroBufferName); }
void glDeleteBuffers(GLsizei n, const GLuint* buffers) { deleteNames("glDeleteBuffers", "buffer", n, buffers); }
void glGenVertexArrays(GLsizei n, GLuint* arrays) { genNames("glGenVertexArrays", "vertexarray", n, arrays); }
void glDeleteVertexArrays(GLsizei n, const GLuint* arrays) { deleteNames("glDeleteVertexArrays", "vertexarray", n, arrays); }
void glGenQueries(GLsizei n, GLuint* ids) { genNames("glGenQueries", "query", n, ids); }
void glDeleteQueries(GLsizei n, const GLuint* ids) { deleteNames("glDeleteQueries", "query", n, ids); }

GLuint glCreateShader(GLenum type) {
    record("glCreateShader", type);
    return static_cast<GLuint>(createObject("shader"));
}

GLuint glCreateProgram(void) {
    record("glCreateProgram");
    return static_cast<GLuint>(createObject("program"));
}

void glDeleteShader(GLuint shader) { record("glDeleteShader", shader), destroyObject("shader", shader); }
void glDeleteProgram(GLuint program) { record("glDeleteProgram", program), destroyObject("program", program); }

void glCompileShader(GLuint shader) { build("glCompileShader", "shader", shader, inj().failCompileAt); }
void glLinkProgram(GLuint program) { build("glLinkProgram", "program", program, inj().failLinkAt); }
void glGetShaderiv(GLuint shader, GLenum pname, GLint* params) { getBuildStatus("glGetShaderiv", "shader", shader, pname, params); }
void glGetProgramiv(GLuint program, GLenum pname, GLint* params) { getBuildStatus("glGetProgramiv", "program", program, pname, params); }
void glGetShaderInfoLog(GLuint shader, GLsizei bufSize, GLsizei* length, GLchar* infoLog) {
    getBuildLog("glGetShaderInfoLog", "shader", shader, bufSize, length, infoLog);
}
void glGetProgramInfoLog(GLuint program, GLsizei bufSize, GLsizei* length, GLchar* infoLog) {
    getBuildLog("glGetProgramInfoLog", "program", program, bufSize, length, infoLog);
}

void glBindAttribLocation(GLuint program, GLuint index, const GLchar* name) {
    record("glBindAttribLocation", program, index, name).text = name;
    state().boundAttribs[{program, name}] = static_cast<GLint>(index);
}

// Unbound, the library's two attributes sit at 0 and 1.
GLint glGetAttribLocation(GLuint program, const GLchar* name) {
    record("glGetAttribLocation", program, name).text = name;
    auto bound = state().boundAttribs.find({program, name});
    if (bound != state().boundAttribs.end()) return bound->second;
    return std::string(name) == "vPosition" ? 0 : std::string(name) == "texCoords" ? 1 : -1;
}

// Every name has its own location, the same in every program.
GLint glGetUniformLocation(GLuint program, const GLchar* name) {
    record("glGetUniformLocation", program, name).text = name;
    auto& locations = state().uniformLocations;
    return locations.emplace(name, static_cast<GLint>(locations.size())).first->second;
}

// Fences are handles that never signal: a caller that polls them sees work still in flight.
GLsync glFenceSync(GLenum condition, GLbitfield flags) {
    record("glFenceSync", condition, flags);
    return reinterpret_cast<GLsync>(static_cast<uintptr_t>(createObject("sync")));
}
GLenum glClientWaitSync(GLsync sync, GLbitfield flags, GLuint64 timeout) {
    record("glClientWaitSync", sync, flags, timeout);
    return GL_TIMEOUT_EXPIRED;
}
void glDeleteSync(GLsync sync) {
    record("glDeleteSync", sync);
    state().live["sync"].erase(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(sync)));
}

GLenum glCheckFramebufferStatus(GLenum target) {
    record("glCheckFramebufferStatus", target);
    return inj().framebufferStatus;
}

void glGetIntegerv(GLenum pname, GLint* data) {
    record("glGetIntegerv", pname, data);
    const GLint* answer = pname == GL_MAX_TEXTURE_SIZE ? &inj().maxTextureSize
                          : pname == GL_MAX_RENDERBUFFER_SIZE ? &inj().maxRenderbufferSize
                          : pname == GL_MAX_TEXTURE_IMAGE_UNITS ? &inj().maxTextureImageUnits
                                                                : nullptr;
    if (answer != nullptr && data != nullptr) *data = *answer;
}

const GLubyte* glGetString(GLenum name) {
    record("glGetString", name);
    const char* s = name == GL_EXTENSIONS ? inj().glExtensions.c_str() : name == GL_VERSION ? "OpenGL ES 3.1 fakegl" : "fakegl";
    return reinterpret_cast<const GLubyte*>(s);
}

}  // extern "C"
