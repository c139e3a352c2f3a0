// GLES entry points with behaviour: object names, errors, shader status, queries.
#include "fakegl_internal.h"

#include <algorithm>
#include <cstring>
#include <sstream>

using namespace fakegl::detail;
using fakegl::Call;

namespace {

constexpr GLint kMaxSize = 16384;

void raiseGlError(GLenum error) { state().raisedGlErrors.push_back(error); }

void genNames(const char* fn, const char* kind, GLsizei n, GLuint* names, bool handOutZero = false) {
    Lock lock(state().mutex);
    Call& call = recordLocked(fn, n, names);
    if (n < 0) raiseGlError(GL_INVALID_VALUE);
    for (GLsizei i = 0; i < n && names != nullptr; ++i) {
        names[i] = handOutZero ? 0 : static_cast<GLuint>(createObject(kind));
        call.args.push_back(names[i]);
    }
}

// Name 0 is silently ignored, as GL does.
void deleteNames(const char* fn, const char* kind, GLsizei n, const GLuint* names) {
    Lock lock(state().mutex);
    Call& call = recordLocked(fn, n, names);
    if (n < 0) raiseGlError(GL_INVALID_VALUE);
    for (GLsizei i = 0; i < n && names != nullptr; ++i) {
        call.args.push_back(names[i]);
        destroyObject(kind, names[i]);
    }
}

void deleteNamed(const char* fn, const char* kind, GLuint name) {
    Lock lock(state().mutex);
    recordLocked(fn, name);
    destroyObject(kind, name);
}

GLboolean isNamed(const char* fn, const char* kind, GLuint name) {
    Lock lock(state().mutex);
    recordLocked(fn, name);
    return isLiveObject(kind, name) ? GL_TRUE : GL_FALSE;
}

// Marks the outcome of the n-th compile or link (1-based) as failed when injected.
void noteBuildResult(const char* fn, std::map<GLuint, bool>& results, GLuint object, int failAt) {
    Lock lock(state().mutex);
    recordLocked(fn, object);
    results[object] = static_cast<int>(state().callCounts[fn]) != failAt;
}

bool succeeded(const std::map<GLuint, bool>& results, GLuint object) {
    auto it = results.find(object);
    return it != results.end() && it->second;
}

// Log of a failed build; a successful one has none.
const std::string& buildLog(const std::map<GLuint, bool>& results, GLuint object, const std::string& log) {
    static const std::string none;
    return results.count(object) && !succeeded(results, object) ? log : none;
}

void writeBuildStatus(const std::map<GLuint, bool>& results, GLuint object, GLenum statusName,
                      const std::string& log, GLenum pname, GLint* params) {
    if (params == nullptr) return;
    if (pname == statusName)
        *params = succeeded(results, object) ? GL_TRUE : GL_FALSE;
    else if (pname == GL_INFO_LOG_LENGTH)
        *params = log.empty() ? 0 : static_cast<GLint>(log.size() + 1);
    else if (pname == GL_VALIDATE_STATUS)
        *params = GL_TRUE;
    else
        *params = 0;
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

// Fixed locations of the library's two attributes; any other name gets the next free number.
GLint attribLocation(GLuint program, const std::string& name) {
    State& s = state();
    auto bound = s.boundAttribs.find({program, name});
    if (bound != s.boundAttribs.end()) return bound->second;
    if (name == "vPosition") return 0;
    if (name == "texCoords") return 1;
    return s.attribLocations.emplace(name, static_cast<GLint>(s.attribLocations.size()) + 2).first->second;
}

const std::vector<std::string>& glExtensionList() {
    State& s = state();
    s.glExtensionList.clear();
    std::istringstream words(s.inj.glExtensions);
    for (std::string w; words >> w;) s.glExtensionList.push_back(w);
    return s.glExtensionList;
}

GLint boundTexture(GLenum target) {
    State& s = state();
    auto it = s.boundTextures.find({s.integers.count(GL_ACTIVE_TEXTURE) ? s.integers[GL_ACTIVE_TEXTURE]
                                                                         : GL_TEXTURE0, target});
    return it == s.boundTextures.end() ? 0 : static_cast<GLint>(it->second);
}

// What glReadPixels accepts besides RGBA: the single- and two-channel formats of the bound target.
GLint colorReadFormat() {
    State& s = state();
    GLuint texture = s.colorAttachments[static_cast<GLuint>(s.integers[GL_READ_FRAMEBUFFER_BINDING])];
    switch (s.textureFormats[texture]) {
    case GL_R8: case GL_RED: return GL_RED;
    case GL_RG8: case GL_RG: return GL_RG;
    default: return GL_RGBA;
    }
}

std::vector<GLint> queryIntegers(GLenum pname) {
    State& s = state();
    switch (pname) {
    case GL_MAX_TEXTURE_SIZE: case GL_MAX_RENDERBUFFER_SIZE: return {kMaxSize};
    case GL_MAX_VIEWPORT_DIMS: return {kMaxSize, kMaxSize};
    case GL_VIEWPORT: return {s.viewport[0], s.viewport[1], s.viewport[2], s.viewport[3]};
    case GL_IMPLEMENTATION_COLOR_READ_FORMAT: return {colorReadFormat()};
    case GL_IMPLEMENTATION_COLOR_READ_TYPE: return {GL_UNSIGNED_BYTE};
    case GL_MAX_TEXTURE_IMAGE_UNITS: case GL_MAX_VERTEX_ATTRIBS: return {16};
    case GL_MAX_COMBINED_TEXTURE_IMAGE_UNITS: return {48};
    case GL_MAX_COLOR_ATTACHMENTS: case GL_MAX_DRAW_BUFFERS: return {4};
    case GL_NUM_EXTENSIONS: return {static_cast<GLint>(glExtensionList().size())};
    case GL_MAJOR_VERSION: return {3};
    case GL_MINOR_VERSION: return {1};
    case GL_TEXTURE_BINDING_2D: return {boundTexture(GL_TEXTURE_2D)};
    case GL_TEXTURE_BINDING_EXTERNAL_OES: return {boundTexture(GL_TEXTURE_EXTERNAL_OES)};
    case GL_ACTIVE_TEXTURE: return {s.integers.count(pname) ? s.integers[pname] : GL_TEXTURE0};
    case GL_UNPACK_ALIGNMENT: case GL_PACK_ALIGNMENT: return {s.integers.count(pname) ? s.integers[pname] : 4};
    }
    auto it = s.integers.find(pname);
    return {it == s.integers.end() ? 0 : it->second};
}

template <class T>
void getValues(const char* fn, GLenum pname, T* data) {
    Lock lock(state().mutex);
    recordLocked(fn, pname, data);
    if (data == nullptr) return;
    std::vector<GLint> values = queryIntegers(pname);
    for (size_t i = 0; i < values.size(); ++i) data[i] = static_cast<T>(values[i]);
}

GLenum bufferBinding(GLenum target) {
    switch (target) {
    case GL_ARRAY_BUFFER: return GL_ARRAY_BUFFER_BINDING;
    case GL_ELEMENT_ARRAY_BUFFER: return GL_ELEMENT_ARRAY_BUFFER_BINDING;
    case GL_PIXEL_PACK_BUFFER: return GL_PIXEL_PACK_BUFFER_BINDING;
    case GL_PIXEL_UNPACK_BUFFER: return GL_PIXEL_UNPACK_BUFFER_BINDING;
    case GL_UNIFORM_BUFFER: return GL_UNIFORM_BUFFER_BINDING;
    }
    return 0;
}

void noteTextureFormat(GLenum target, GLint internalformat) {
    GLint texture = boundTexture(target);
    if (texture != 0) state().textureFormats[static_cast<GLuint>(texture)] = internalformat;
}

void recordImageTarget(const char* fn, GLenum target, GLeglImageOES image) {
    Lock lock(state().mutex);
    recordLocked(fn, target, image);
    if (!isLiveObject("image", nameOf(image))) raiseGlError(GL_INVALID_VALUE);
}

}  // namespace

namespace fakegl::detail {

void glEGLImageTargetTexture2DOES(GLenum target, GLeglImageOES image) {
    recordImageTarget("glEGLImageTargetTexture2DOES", target, image);
}

void glEGLImageTargetRenderbufferStorageOES(GLenum target, GLeglImageOES image) {
    recordImageTarget("glEGLImageTargetRenderbufferStorageOES", target, image);
}

}  // namespace fakegl::detail

extern "C" {

GLenum glGetError(void) {
    Lock lock(state().mutex);
    recordLocked("glGetError");
    for (std::deque<GLenum>* q : {&state().queuedGlErrors, &state().raisedGlErrors}) {
        if (q->empty()) continue;
        GLenum e = q->front();
        q->pop_front();
        return e;
    }
    return GL_NO_ERROR;
}

// ---- object names ----
void glGenTextures(GLsizei n, GLuint* textures) { genNames("glGenTextures", "texture", n, textures); }
void glDeleteTextures(GLsizei n, const GLuint* textures) { deleteNames("glDeleteTextures", "texture", n, textures); }
void glGenFramebuffers(GLsizei n, GLuint* framebuffers) { genNames("glGenFramebuffers", "framebuffer", n, framebuffers); }
void glDeleteFramebuffers(GLsizei n, const GLuint* framebuffers) { deleteNames("glDeleteFramebuffers", "framebuffer", n, framebuffers); }
void glGenRenderbuffers(GLsizei n, GLuint* renderbuffers) { genNames("glGenRenderbuffers", "renderbuffer", n, renderbuffers); }
void glDeleteRenderbuffers(GLsizei n, const GLuint* renderbuffers) { deleteNames("glDeleteRenderbuffers", "renderbuffer", n, renderbuffers); }
void glGenBuffers(GLsizei n, GLuint* buffers) { genNames("glGenBuffers", "buffer", n, buffers, inj().zeroBufferName); }
void glDeleteBuffers(GLsizei n, const GLuint* buffers) { deleteNames("glDeleteBuffers", "buffer", n, buffers); }
void glGenVertexArrays(GLsizei n, GLuint* arrays) { genNames("glGenVertexArrays", "vertexarray", n, arrays); }
void glDeleteVertexArrays(GLsizei n, const GLuint* arrays) { deleteNames("glDeleteVertexArrays", "vertexarray", n, arrays); }
void glGenQueries(GLsizei n, GLuint* ids) { genNames("glGenQueries", "query", n, ids); }
void glDeleteQueries(GLsizei n, const GLuint* ids) { deleteNames("glDeleteQueries", "query", n, ids); }
void glGenSamplers(GLsizei count, GLuint* samplers) { genNames("glGenSamplers", "sampler", count, samplers); }
void glDeleteSamplers(GLsizei count, const GLuint* samplers) { deleteNames("glDeleteSamplers", "sampler", count, samplers); }
void glGenTransformFeedbacks(GLsizei n, GLuint* ids) { genNames("glGenTransformFeedbacks", "transformfeedback", n, ids); }
void glDeleteTransformFeedbacks(GLsizei n, const GLuint* ids) { deleteNames("glDeleteTransformFeedbacks", "transformfeedback", n, ids); }
void glGenProgramPipelines(GLsizei n, GLuint* pipelines) { genNames("glGenProgramPipelines", "pipeline", n, pipelines); }
void glDeleteProgramPipelines(GLsizei n, const GLuint* pipelines) { deleteNames("glDeleteProgramPipelines", "pipeline", n, pipelines); }

GLuint glCreateShader(GLenum type) {
    Lock lock(state().mutex);
    recordLocked("glCreateShader", type);
    return static_cast<GLuint>(createObject("shader"));
}

void glDeleteShader(GLuint shader) { deleteNamed("glDeleteShader", "shader", shader); }
GLuint glCreateProgram(void) {
    Lock lock(state().mutex);
    recordLocked("glCreateProgram");
    return static_cast<GLuint>(createObject("program"));
}

void glDeleteProgram(GLuint program) { deleteNamed("glDeleteProgram", "program", program); }

GLboolean glIsTexture(GLuint texture) { return isNamed("glIsTexture", "texture", texture); }
GLboolean glIsFramebuffer(GLuint framebuffer) { return isNamed("glIsFramebuffer", "framebuffer", framebuffer); }
GLboolean glIsRenderbuffer(GLuint renderbuffer) { return isNamed("glIsRenderbuffer", "renderbuffer", renderbuffer); }
GLboolean glIsBuffer(GLuint buffer) { return isNamed("glIsBuffer", "buffer", buffer); }
GLboolean glIsShader(GLuint shader) { return isNamed("glIsShader", "shader", shader); }
GLboolean glIsProgram(GLuint program) { return isNamed("glIsProgram", "program", program); }

GLsync glFenceSync(GLenum condition, GLbitfield flags) {
    Lock lock(state().mutex);
    recordLocked("glFenceSync", condition, flags);
    return handle<GLsync>(createObject("fence"));
}

void glDeleteSync(GLsync sync) {
    Lock lock(state().mutex);
    recordLocked("glDeleteSync", sync);
    destroyObject("fence", nameOf(sync));
}

GLenum glClientWaitSync(GLsync sync, GLbitfield flags, GLuint64 timeout) {
    Lock lock(state().mutex);
    recordLocked("glClientWaitSync", sync, flags, timeout);
    if (isLiveObject("fence", nameOf(sync))) return GL_ALREADY_SIGNALED;
    raiseGlError(GL_INVALID_VALUE);
    return GL_WAIT_FAILED;
}

// ---- shaders and programs ----
void glShaderSource(GLuint shader, GLsizei count, const GLchar* const* string, const GLint* length) {
    Lock lock(state().mutex);
    Call& call = recordLocked("glShaderSource", shader, count, string, length);
    for (GLsizei i = 0; i < count && string != nullptr; ++i) {
        if (string[i] == nullptr) continue;
        if (length != nullptr && length[i] >= 0)
            call.text.append(string[i], static_cast<size_t>(length[i]));
        else
            call.text.append(string[i]);
    }
}

void glCompileShader(GLuint shader) {
    noteBuildResult("glCompileShader", state().compileOk, shader, inj().failCompileAt);
}

void glLinkProgram(GLuint program) {
    noteBuildResult("glLinkProgram", state().linkOk, program, inj().failLinkAt);
}

void glGetShaderiv(GLuint shader, GLenum pname, GLint* params) {
    Lock lock(state().mutex);
    recordLocked("glGetShaderiv", shader, pname, params);
    const std::string& log = buildLog(state().compileOk, shader, inj().compileLog);
    writeBuildStatus(state().compileOk, shader, GL_COMPILE_STATUS, log, pname, params);
}

void glGetShaderInfoLog(GLuint shader, GLsizei bufSize, GLsizei* length, GLchar* infoLog) {
    Lock lock(state().mutex);
    recordLocked("glGetShaderInfoLog", shader, bufSize, length, infoLog);
    copyLog(buildLog(state().compileOk, shader, inj().compileLog), bufSize, length, infoLog);
}

void glGetProgramiv(GLuint program, GLenum pname, GLint* params) {
    Lock lock(state().mutex);
    recordLocked("glGetProgramiv", program, pname, params);
    const std::string& log = buildLog(state().linkOk, program, inj().linkLog);
    writeBuildStatus(state().linkOk, program, GL_LINK_STATUS, log, pname, params);
}

void glGetProgramInfoLog(GLuint program, GLsizei bufSize, GLsizei* length, GLchar* infoLog) {
    Lock lock(state().mutex);
    recordLocked("glGetProgramInfoLog", program, bufSize, length, infoLog);
    copyLog(buildLog(state().linkOk, program, inj().linkLog), bufSize, length, infoLog);
}

void glBindAttribLocation(GLuint program, GLuint index, const GLchar* name) {
    Lock lock(state().mutex);
    recordLocked("glBindAttribLocation", program, index, name).text = name ? name : "";
    if (name != nullptr) state().boundAttribs[{program, name}] = static_cast<GLint>(index);
}

GLint glGetAttribLocation(GLuint program, const GLchar* name) {
    Lock lock(state().mutex);
    recordLocked("glGetAttribLocation", program, name).text = name ? name : "";
    return name ? attribLocation(program, name) : -1;
}

GLint glGetUniformLocation(GLuint program, const GLchar* name) {
    Lock lock(state().mutex);
    recordLocked("glGetUniformLocation", program, name).text = name ? name : "";
    if (name == nullptr) return -1;
    auto& locations = state().uniformLocations;
    return locations.emplace(name, static_cast<GLint>(locations.size())).first->second;
}

// ---- queries ----
GLenum glCheckFramebufferStatus(GLenum target) {
    Lock lock(state().mutex);
    recordLocked("glCheckFramebufferStatus", target);
    return inj().framebufferStatus;
}

const GLubyte* glGetString(GLenum name) {
    Lock lock(state().mutex);
    recordLocked("glGetString", name);
    const char* s = nullptr;
    switch (name) {
    case GL_VERSION: s = inj().glVersion.c_str(); break;
    case GL_EXTENSIONS: s = inj().glExtensions.c_str(); break;
    case GL_RENDERER: s = "fakegl"; break;
    case GL_VENDOR: s = "fakegl"; break;
    case GL_SHADING_LANGUAGE_VERSION: s = "OpenGL ES GLSL ES 3.10"; break;
    default: raiseGlError(GL_INVALID_ENUM);
    }
    return reinterpret_cast<const GLubyte*>(s);
}

const GLubyte* glGetStringi(GLenum name, GLuint index) {
    Lock lock(state().mutex);
    recordLocked("glGetStringi", name, index);
    const std::vector<std::string>& list = glExtensionList();
    if (name != GL_EXTENSIONS || index >= list.size()) {
        raiseGlError(name != GL_EXTENSIONS ? GL_INVALID_ENUM : GL_INVALID_VALUE);
        return nullptr;
    }
    return reinterpret_cast<const GLubyte*>(list[index].c_str());
}

void glGetIntegerv(GLenum pname, GLint* data) { getValues("glGetIntegerv", pname, data); }
void glGetInteger64v(GLenum pname, GLint64* data) { getValues("glGetInteger64v", pname, data); }
void glGetFloatv(GLenum pname, GLfloat* data) { getValues("glGetFloatv", pname, data); }
void glGetBooleanv(GLenum pname, GLboolean* data) { getValues("glGetBooleanv", pname, data); }

// ---- state a caller may read back ----
void glBindFramebuffer(GLenum target, GLuint framebuffer) {
    Lock lock(state().mutex);
    recordLocked("glBindFramebuffer", target, framebuffer);
    if (target != GL_READ_FRAMEBUFFER) state().integers[GL_DRAW_FRAMEBUFFER_BINDING] = static_cast<GLint>(framebuffer);
    if (target != GL_DRAW_FRAMEBUFFER) state().integers[GL_READ_FRAMEBUFFER_BINDING] = static_cast<GLint>(framebuffer);
}

void glFramebufferTexture2D(GLenum target, GLenum attachment, GLenum textarget, GLuint texture, GLint level) {
    Lock lock(state().mutex);
    recordLocked("glFramebufferTexture2D", target, attachment, textarget, texture, level);
    GLenum binding = target == GL_READ_FRAMEBUFFER ? GL_READ_FRAMEBUFFER_BINDING : GL_DRAW_FRAMEBUFFER_BINDING;
    if (attachment == GL_COLOR_ATTACHMENT0)
        state().colorAttachments[static_cast<GLuint>(state().integers[binding])] = texture;
}

void glBindTexture(GLenum target, GLuint texture) {
    Lock lock(state().mutex);
    recordLocked("glBindTexture", target, texture);
    GLint unit = state().integers.count(GL_ACTIVE_TEXTURE) ? state().integers[GL_ACTIVE_TEXTURE] : GL_TEXTURE0;
    state().boundTextures[{unit, target}] = texture;
}

void glTexImage2D(GLenum target, GLint level, GLint internalformat, GLsizei width, GLsizei height, GLint border,
                  GLenum format, GLenum type, const void* pixels) {
    Lock lock(state().mutex);
    recordLocked("glTexImage2D", target, level, internalformat, width, height, border, format, type, pixels);
    if (level == 0) noteTextureFormat(target, internalformat);
}

void glTexStorage2D(GLenum target, GLsizei levels, GLenum internalformat, GLsizei width, GLsizei height) {
    Lock lock(state().mutex);
    recordLocked("glTexStorage2D", target, levels, internalformat, width, height);
    noteTextureFormat(target, static_cast<GLint>(internalformat));
}

void glActiveTexture(GLenum texture) {
    Lock lock(state().mutex);
    recordLocked("glActiveTexture", texture);
    state().integers[GL_ACTIVE_TEXTURE] = static_cast<GLint>(texture);
}

void glBindBuffer(GLenum target, GLuint buffer) {
    Lock lock(state().mutex);
    recordLocked("glBindBuffer", target, buffer);
    if (GLenum binding = bufferBinding(target)) state().integers[binding] = static_cast<GLint>(buffer);
}

void glUseProgram(GLuint program) {
    Lock lock(state().mutex);
    recordLocked("glUseProgram", program);
    state().integers[GL_CURRENT_PROGRAM] = static_cast<GLint>(program);
}

void glPixelStorei(GLenum pname, GLint param) {
    Lock lock(state().mutex);
    recordLocked("glPixelStorei", pname, param);
    state().integers[pname] = param;
}

void glViewport(GLint x, GLint y, GLsizei width, GLsizei height) {
    Lock lock(state().mutex);
    recordLocked("glViewport", x, y, width, height);
    GLint* v = state().viewport;
    v[0] = x, v[1] = y, v[2] = width, v[3] = height;
}

// The mapping is the fake's own zeroed memory, valid until glUnmapBuffer of the same target.
void* glMapBufferRange(GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access) {
    Lock lock(state().mutex);
    recordLocked("glMapBufferRange", target, offset, length, access);
    if (length <= 0) {
        raiseGlError(GL_INVALID_VALUE);
        return nullptr;
    }
    std::vector<uint8_t>& bytes = state().mappedBuffers[target];
    bytes.assign(static_cast<size_t>(length), 0);
    return bytes.data();
}

GLboolean glUnmapBuffer(GLenum target) {
    Lock lock(state().mutex);
    recordLocked("glUnmapBuffer", target);
    return state().mappedBuffers.erase(target) ? GL_TRUE : GL_FALSE;
}

}  // extern "C"
