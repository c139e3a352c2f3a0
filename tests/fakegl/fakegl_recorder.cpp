// The fake driver's recorder: call log, object names, injected errors.
#include "fakegl_internal.h"

namespace fakegl::detail {

State& state() {
    static State s;
    return s;
}

Call& newCall(const char* fn, std::vector<int64_t> args) {
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

uint64_t createObject(const std::string& kind) {
    uint64_t name = ++state().created[kind];
    state().live[kind].insert(name);
    return name;
}

bool isLiveObject(const std::string& kind, uint64_t name) { return state().live[kind].count(name) != 0; }

void destroyObject(const std::string& kind, uint64_t name) {
    if (name != 0 && state().live[kind].erase(name) == 0) ++state().doubleDeletes;
}

template <class T>
static std::vector<EGLint> copyList(const T* list) {
    std::vector<EGLint> out;
    // Attribute lists are name/value pairs; the terminator sits in a name position.
    for (size_t i = 0; list != nullptr; i += 2) {
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

void reset() { state() = State{}; }
Injection& inject() { return state().inj; }
void queueGlError(GLenum error) { state().queuedGlErrors.push_back(error); }
void failCall(const std::string& fn, GLenum error, int nth) { state().armed.push_back({fn, error, nth < 1 ? 1 : nth}); }
const std::vector<Call>& calls() { return state().calls; }

std::vector<Call> callsTo(const std::string& fn) {
    std::vector<Call> out;
    for (const Call& c : state().calls)
        if (c.fn == fn) out.push_back(c);
    return out;
}

size_t countCalls(const std::string& fn) { return state().callCounts[fn]; }

long findCall(const std::string& fn, size_t from) {
    for (size_t i = from; i < state().calls.size(); ++i)
        if (state().calls[i].fn == fn) return static_cast<long>(i);
    return -1;
}

size_t liveObjects(const std::string& kind) { return state().live[kind].size(); }
size_t createdObjects(const std::string& kind) { return state().created[kind]; }
size_t doubleDeletes() { return state().doubleDeletes; }
bool isLive(const std::string& kind, uint64_t name) { return isLiveObject(kind, name); }

EGLint attribValue(const Call& call, EGLint name, EGLint missing) {
    const std::vector<EGLint>& a = call.attribs;
    for (size_t i = 0; i + 1 < a.size() && a[i] != EGL_NONE; i += 2)
        if (a[i] == name) return a[i + 1];
    return missing;
}

}  // namespace fakegl
