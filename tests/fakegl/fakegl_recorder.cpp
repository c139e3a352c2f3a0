// The fake driver's recorder: call log, object names, injected errors.
#include "fakegl_internal.h"

namespace fakegl::detail {

State& state() {
    static State s;
    return s;
}

Call& newCall(const char* fn) {
    State& s = state();
    s.calls.push_back(Call{fn, {}, {}, {}, {}});
    ++s.callCounts[fn];
    for (auto it = s.armed.begin(); it != s.armed.end(); ++it) {
        if (it->fn != fn || --it->remaining > 0) continue;
        if (it->fn.compare(0, 3, "egl") == 0)
            s.eglError = static_cast<EGLint>(it->error);
        else
            s.raisedGlErrors.push_back(it->error);
        s.armed.erase(it);
        break;
    }
    return s.calls.back();
}

uint64_t createObject(const std::string& kind) {
    State& s = state();
    GLuint& next = s.nextName[kind];
    if (next == 0) next = 1;
    uint64_t name = next++;
    s.live[kind].insert(name);
    ++s.created[kind];
    return name;
}

bool isLiveObject(const std::string& kind, uint64_t name) {
    auto it = state().live.find(kind);
    return it != state().live.end() && it->second.count(name) != 0;
}

void destroyObject(const std::string& kind, uint64_t name) {
    if (name == 0) return;
    if (state().live[kind].erase(name) == 0) ++state().doubleDeletes;
}

void setEglError(EGLint error) { state().eglError = error; }

template <class T>
static std::vector<EGLint> copyList(const T* list) {
    std::vector<EGLint> out;
    if (list == nullptr) return out;
    // Attribute lists are name/value pairs; the terminator sits in a name position.
    for (size_t i = 0;; i += 2) {
        out.push_back(static_cast<EGLint>(list[i]));
        if (list[i] == EGL_NONE) break;
        out.push_back(static_cast<EGLint>(list[i + 1]));
    }
    return out;
}

std::vector<EGLint> copyAttribs(const EGLint* list) { return copyList(list); }
std::vector<EGLint> copyAttribs(const EGLAttrib* list) { return copyList(list); }

}  // namespace fakegl::detail

namespace fakegl {

using namespace detail;

void reset() {
    State& s = state();
    Lock lock(s.mutex);
    s.inj = Injection{};
    s.calls.clear();
    s.callCounts.clear();
    s.nextName.clear();
    s.live.clear();
    s.created.clear();
    s.doubleDeletes = 0;
    s.queuedGlErrors.clear();
    s.raisedGlErrors.clear();
    s.armed.clear();
    s.eglError = EGL_SUCCESS;
    s.displays.clear();
    s.initializedDisplays.clear();
    s.currentContext = 0;
    s.compileOk.clear();
    s.linkOk.clear();
    s.boundAttribs.clear();
    s.attribLocations.clear();
    s.uniformLocations.clear();
    s.glExtensionList.clear();
    s.mappedBuffers.clear();
    s.integers.clear();
    for (GLint& v : s.viewport) v = 0;
    s.boundTextures.clear();
    s.textureFormats.clear();
    s.colorAttachments.clear();
}

// Tests set injections before the code under test runs; no lock is held across the edit.
Injection& inject() { return state().inj; }

void queueGlError(GLenum error) {
    Lock lock(state().mutex);
    state().queuedGlErrors.push_back(error);
}

void failCall(const std::string& fn, GLenum error, int nth) {
    Lock lock(state().mutex);
    state().armed.push_back(ArmedError{fn, error, nth < 1 ? 1 : nth});
}

// Read after the code under test has finished; the log is not copied.
const std::vector<Call>& calls() { return state().calls; }

std::vector<Call> callsTo(const std::string& fn) {
    Lock lock(state().mutex);
    std::vector<Call> out;
    for (const Call& c : state().calls)
        if (c.fn == fn) out.push_back(c);
    return out;
}

size_t countCalls(const std::string& fn) {
    Lock lock(state().mutex);
    auto it = state().callCounts.find(fn);
    return it == state().callCounts.end() ? 0 : it->second;
}

long findCall(const std::string& fn, size_t from) {
    Lock lock(state().mutex);
    const std::vector<Call>& all = state().calls;
    for (size_t i = from; i < all.size(); ++i)
        if (all[i].fn == fn) return static_cast<long>(i);
    return -1;
}

size_t liveObjects(const std::string& kind) {
    Lock lock(state().mutex);
    auto it = state().live.find(kind);
    return it == state().live.end() ? 0 : it->second.size();
}

size_t createdObjects(const std::string& kind) {
    Lock lock(state().mutex);
    auto it = state().created.find(kind);
    return it == state().created.end() ? 0 : it->second;
}

size_t doubleDeletes() {
    Lock lock(state().mutex);
    return state().doubleDeletes;
}

bool isLive(const std::string& kind, uint64_t name) {
    Lock lock(state().mutex);
    return isLiveObject(kind, name);
}

EGLint attribValue(const Call& call, EGLint name, EGLint missing) {
    const std::vector<EGLint>& a = call.attribs;
    for (size_t i = 0; i + 1 < a.size() && a[i] != EGL_NONE; i += 2)
        if (a[i] == name) return a[i + 1];
    return missing;
}

}  // namespace fakegl
