// GLES entry points with behaviour: object names, errors, shader status, queries.
#include "fakegl_internal.h"

#include <algorithm>
#include <cstring>

using namespace fakegl::detail;

namespace {

void genNames(const char* fn, const char* kind, GLsizei n, GLuint* names, bool handOutZero = false) {
    fakegl::Call& call = record(fn, n, names);
    for (GLsizei i = 0; i < n && names != nullptr; ++i) {
        names[i] = handOutZero ? 0 : static_cast<GLuint>(createObject(kind));
        call.args.push_back(names[i]);
    }
}

// Name 0 is silently ignored, as GL does.
void deleteNames(const char* fn, const char* kind, GLsizei n, const GLuint* names) {
    fakegl::Call& call = record(fn, n, names);
    for (GLsizei i = 0; i < n && names != nullptr; ++i) {
        call.args.push_back(names[i]);
        destroyObject(kind, names[i]);
    }
}

// Marks the outcome of the n-th compile or link (1-based) as failed when injected.
void noteBuildResult(const char* fn, std::map<GLuint, bool>& results, GLuint object, int failAt) {
    record(fn, object);
    results[object] = static_cast<int>(state().callCounts[fn]) != failAt;
}

// Log of a failed build; a successful one has none.
std::string buildLog(const std::map<GLuint, bool>& results, GLuint object, const std::string& log) {
    auto it = results.find(object);
    return it != results.end() && !it->second ? log : "";
}

void writeBuildStatus(const std::map<GLuint, bool>& results, GLuint object, GLenum statusName,
                      const std::string& log, GLenum pname, GLint* params) {
    auto it = results.find(object);
    if (pname == statusName)
        *params = it != results.end() && it->second ? GL_TRUE : GL_FALSE;
    else
        *params = pname == GL_INFO_LOG_LENGTH && !log.empty() ? static_cast<GLint>(log.size() + 1) : 0;
}

void copyLog(const std::string& log, GLsizei bufSize, GLsizei* length, GLchar* out) {
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
    if (!isLiveObject("image", nameOf(image))) state().raisedGlErrors.push_back(GL_INVALID_VALUE);
}

extern "C" {

GLenum glGetError(void) {
    record("glGetError");
    for (std::deque<GLenum>* q : {&state().queuedGlErrors, &state().raisedGlErrors}) {
        if (q->empty()) continue;
        GLenum e = q->front();
        q->pop_front();
        return e;
    }
    return GL_NO_ERROR;
}

void glGenTextures(GLsizei n, GLuint* textures) { genNames("glGenTextures", "texture", n, textures); }
void glDeleteTextures(GLsizei n, const GLuint* textures) { deleteNames("glDeleteTextures", "texture", n, textures); }
void glGenFramebuffers(GLsizei n, GLuint* fbos) { genNames("glGenFramebuffers", "framebuffer", n, fbos); }
void glDeleteFramebuffers(GLsizei n, const GLuint* fbos) { deleteNames("glDeleteFramebuffers", "framebuffer", n, fbos); }
void glGenBuffers(GLsizei n, GLuint* buffers) { genNames("glGenBuffers", "buffer", n, buffers, inj().zeroBufferName); }
void glDeleteBuffers(GLsizei n, const GLuint* buffers) { deleteNames("glDeleteBuffers", "buffer", n, buffers); }

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

void glShaderSource(GLuint shader, GLsizei count, const GLchar* const* string, const GLint* length) {
    fakegl::Call& call = record("glShaderSource", shader, count, string, length);
    for (GLsizei i = 0; i < count && string != nullptr; ++i) {
        if (string[i] == nullptr) continue;
        if (length != nullptr && length[i] >= 0)
            call.text.append(string[i], static_cast<size_t>(length[i]));
        else
            call.text.append(string[i]);
    }
}

void glCompileShader(GLuint shader) { noteBuildResult("glCompileShader", state().compileOk, shader, inj().failCompileAt); }
void glLinkProgram(GLuint program) { noteBuildResult("glLinkProgram", state().linkOk, program, inj().failLinkAt); }

void glGetShaderiv(GLuint shader, GLenum pname, GLint* params) {
    record("glGetShaderiv", shader, pname, params);
    const std::string log = buildLog(state().compileOk, shader, inj().compileLog);
    writeBuildStatus(state().compileOk, shader, GL_COMPILE_STATUS, log, pname, params);
}

void glGetShaderInfoLog(GLuint shader, GLsizei bufSize, GLsizei* length, GLchar* infoLog) {
    record("glGetShaderInfoLog", shader, bufSize, length, infoLog);
    copyLog(buildLog(state().compileOk, shader, inj().compileLog), bufSize, length, infoLog);
}

void glGetProgramiv(GLuint program, GLenum pname, GLint* params) {
    record("glGetProgramiv", program, pname, params);
    const std::string log = buildLog(state().linkOk, program, inj().linkLog);
    writeBuildStatus(state().linkOk, program, GL_LINK_STATUS, log, pname, params);
}

void glGetProgramInfoLog(GLuint program, GLsizei bufSize, GLsizei* length, GLchar* infoLog) {
    record("glGetProgramInfoLog", program, bufSize, length, infoLog);
    copyLog(buildLog(state().linkOk, program, inj().linkLog), bufSize, length, infoLog);
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

GLenum glCheckFramebufferStatus(GLenum target) {
    record("glCheckFramebufferStatus", target);
    return inj().framebufferStatus;
}

const GLubyte* glGetString(GLenum name) {
    record("glGetString", name);
    const char* s = name == GL_EXTENSIONS ? inj().glExtensions.c_str() : name == GL_VERSION ? "OpenGL ES 3.1 fakegl" : "fakegl";
    return reinterpret_cast<const GLubyte*>(s);
}

}  // extern "C"
