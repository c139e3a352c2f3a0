// Shared state of the fake driver, used by its entry points. Tests include fakegl.h only.
#ifndef ZQGFX_AVS_FAKEGL_INTERNAL_H
#define ZQGFX_AVS_FAKEGL_INTERNAL_H

#include "fakegl.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace fakegl::detail {

struct ArmedError {
    std::string fn;
    GLenum error;
    int remaining;  // calls to fn still to come before the error is raised
};

// One recorder per process; every member is guarded by `mutex`.
struct State {
    std::mutex mutex;
    Injection inj;
    std::vector<Call> calls;
    std::map<std::string, size_t> callCounts;

    std::map<std::string, GLuint> nextName;             // per kind, names start at 1
    std::map<std::string, std::set<uint64_t>> live;     // per kind
    std::map<std::string, size_t> created;              // per kind
    size_t doubleDeletes = 0;

    std::deque<GLenum> queuedGlErrors;   // queueGlError, returned first
    std::deque<GLenum> raisedGlErrors;   // raised by failCall after their call
    std::vector<ArmedError> armed;
    EGLint eglError = EGL_SUCCESS;       // pending until the next eglGetError

    std::map<std::pair<intptr_t, intptr_t>, uint64_t> displays;  // (platform, native) -> name
    std::set<uint64_t> initializedDisplays;
    uint64_t currentContext = 0;

    std::map<GLuint, bool> compileOk, linkOk;
    std::map<std::pair<GLuint, std::string>, GLint> boundAttribs;  // glBindAttribLocation
    std::map<std::string, GLint> attribLocations, uniformLocations;
    std::vector<std::string> glExtensionList;  // split from inj.glExtensions for glGetStringi
    std::map<GLenum, std::vector<uint8_t>> mappedBuffers;  // by target, owned by the fake

    // Bindings and pixel-store values a caller may query back with glGetIntegerv.
    std::map<GLenum, GLint> integers;
    GLint viewport[4] = {0, 0, 0, 0};
    std::map<std::pair<GLint, GLenum>, GLuint> boundTextures;  // (active unit, target) -> texture
    std::map<GLuint, GLint> textureFormats;                     // texture -> internal format
    std::map<GLuint, GLuint> colorAttachments;                  // framebuffer -> texture
};

State& state();
inline Injection& inj() { return state().inj; }
using Lock = std::lock_guard<std::mutex>;

// Everything below expects the caller to hold state().mutex.
Call& newCall(const char* fn);
uint64_t createObject(const std::string& kind);
bool isLiveObject(const std::string& kind, uint64_t name);
void destroyObject(const std::string& kind, uint64_t name);  // counts names that are not live
void setEglError(EGLint error);
std::vector<EGLint> copyAttribs(const EGLint* list);
std::vector<EGLint> copyAttribs(const EGLAttrib* list);

inline int64_t floatArg(double v) {
    return std::isfinite(v) && std::fabs(v) < 9.0e18 ? static_cast<int64_t>(v) : 0;
}

template <class T>
void pushArg(Call& call, T value) {
    if constexpr (std::is_pointer_v<T>) {
        call.args.push_back(static_cast<int64_t>(reinterpret_cast<intptr_t>(value)));
    } else if constexpr (std::is_floating_point_v<T>) {
        call.args.push_back(floatArg(value));
        call.floats.push_back(value);
    } else {
        call.args.push_back(static_cast<int64_t>(value));
    }
}

template <class... A>
Call& recordLocked(const char* fn, A... args) {
    Call& call = newCall(fn);
    (pushArg(call, args), ...);
    return call;
}

template <class... A>
void record(const char* fn, A... args) {
    Lock lock(state().mutex);
    recordLocked(fn, args...);
}

template <class H>
H handle(uint64_t name) {
    return reinterpret_cast<H>(static_cast<uintptr_t>(name));
}
template <class H>
uint64_t nameOf(H h) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(h));
}

using ProcAddress = __eglMustCastToProperFunctionPointerType;
struct ProcEntry {
    const char* name;
    ProcAddress fn;
};
extern const ProcEntry kCoreProcs[];
// GL extension entry points, handed out by eglGetProcAddress.
void glEGLImageTargetTexture2DOES(GLenum target, GLeglImageOES image);
void glEGLImageTargetRenderbufferStorageOES(GLenum target, GLeglImageOES image);
extern const size_t kCoreProcCount;

}  // namespace fakegl::detail

#endif  // ZQGFX_AVS_FAKEGL_INTERNAL_H
