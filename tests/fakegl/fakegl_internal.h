// Shared state of the fake driver, used by its entry points. Tests include fakegl.h only.
#ifndef ZQGFX_AVS_FAKEGL_INTERNAL_H
#define ZQGFX_AVS_FAKEGL_INTERNAL_H

#include "fakegl.h"

#include <cmath>
#include <deque>
#include <map>
#include <set>
#include <type_traits>
#include <utility>

namespace fakegl::detail {

struct ArmedError {
    std::string fn;
    GLenum error;
    int remaining;  // calls to fn still to come before the error is raised
};

struct State {
    Injection inj;
    std::vector<Call> calls;
    std::map<std::string, size_t> callCounts;
    std::map<std::string, std::set<uint64_t>> live;  // per kind
    std::map<std::string, size_t> created;           // per kind; names run from 1
    size_t doubleDeletes = 0;
    std::deque<GLenum> queuedGlErrors, raisedGlErrors;  // queued ones are returned first
    std::vector<ArmedError> armed;
    EGLint eglError = EGL_SUCCESS;  // pending until the next eglGetError
    std::map<std::pair<EGLenum, intptr_t>, uint64_t> displays;  // (platform, native) -> name; 0: eglGetDisplay
    std::map<std::pair<std::string, GLuint>, bool> built;  // (kind, name) of each compile or link -> succeeded
    std::map<std::pair<GLuint, std::string>, GLint> boundAttribs;
    std::map<std::string, GLint> uniformLocations;
};

State& state();
inline Injection& inj() { return state().inj; }

template <class T>
int64_t scalar(T value) {
    if constexpr (std::is_pointer_v<T>)
        return static_cast<int64_t>(reinterpret_cast<intptr_t>(value));
    else if constexpr (std::is_floating_point_v<T>)
        return std::isfinite(value) && std::fabs(value) < 9.0e18 ? static_cast<int64_t>(value) : 0;
    else
        return static_cast<int64_t>(value);
}

Call& newCall(const char* fn, std::vector<int64_t> args);
template <class... A>
Call& record(const char* fn, A... args) { return newCall(fn, {scalar(args)...}); }

uint64_t createObject(const std::string& kind);
bool isLiveObject(const std::string& kind, uint64_t name);
void destroyObject(const std::string& kind, uint64_t name);  // counts names that are not live
std::vector<EGLint> copyAttribs(const EGLint* list);
std::vector<EGLint> copyAttribs(const EGLAttrib* list);

template <class H>
H handle(uint64_t name) { return reinterpret_cast<H>(static_cast<uintptr_t>(name)); }
template <class H>
uint64_t nameOf(H h) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(h)); }

// The GL extension entry point, handed out by eglGetProcAddress.
void glEGLImageTargetTexture2DOES(GLenum target, GLeglImageOES image);

}  // namespace fakegl::detail

#endif  // ZQGFX_AVS_FAKEGL_INTERNAL_H
