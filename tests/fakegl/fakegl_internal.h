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
    std::deque<GLenum> raisedGlErrors;
    std::vector<ArmedError> armed;
    EGLint eglError = EGL_SUCCESS;  // pending until the next eglGetError
    std::map<std::pair<EGLenum, intptr_t>, uint64_t> displays;  // (platform, native) -> name; 0: eglGetDisplay
    std::map<std::pair<std::string, GLuint>, bool> built;  // (kind, name) of each compile or link -> succeeded
    std::map<std::pair<GLuint, std::string>, GLint> boundAttribs;
    std::map<std::string, GLint> uniformLocations;
};

inline State& state() {
    static State s;
    return s;
}
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

// Logs the call and raises the GL error armed for it.
inline Call& newCall(const char* fn, std::vector<int64_t> args) {
    State& s = state();
    s.calls.push_back(Call{fn, std::move(args), {}, {}});
    ++s.callCounts[fn];
    for (auto it = s.armed.begin(); it != s.armed.end(); ++it) {
        if (it->fn != fn || --it->remaining > 0) continue;
        s.raisedGlErrors.push_back(it->error);
        s.armed.erase(it);
        break;
    }
    return s.calls.back();
}
template <class... A>
Call& record(const char* fn, A... args) { return newCall(fn, {scalar(args)...}); }

// Names run from 1 per kind.
inline uint64_t createObject(const std::string& kind) {
    uint64_t name = ++state().created[kind];
    state().live[kind].insert(name);
    return name;
}

// Counts names that are not live; name 0 is no object.
inline void destroyObject(const std::string& kind, uint64_t name) {
    if (name != 0 && state().live[kind].erase(name) == 0) ++state().doubleDeletes;
}

// Attribute lists are name/value pairs; the terminator sits in a name position.
template <class T>
std::vector<EGLint> copyAttribs(const T* list) {
    std::vector<EGLint> out;
    for (size_t i = 0; list != nullptr; i += 2) {
        out.push_back(static_cast<EGLint>(list[i]));
        if (list[i] == EGL_NONE) break;
        out.push_back(static_cast<EGLint>(list[i + 1]));
    }
    return out;
}

template <class H>
H handle(uint64_t name) { return reinterpret_cast<H>(static_cast<uintptr_t>(name)); }
template <class H>
uint64_t nameOf(H h) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(h)); }

// The GL extension entry point, handed out by eglGetProcAddress.
void glEGLImageTargetTexture2DOES(GLenum target, GLeglImageOES image);

}  // namespace fakegl::detail

#endif  // ZQGFX_AVS_FAKEGL_INTERNAL_H
