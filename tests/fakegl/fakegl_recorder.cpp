// The fake driver's interface for tests: the call log, object counts and injections.
#include "fakegl_internal.h"

namespace fakegl {

using namespace detail;

void reset() { state() = State{}; }
Injection& inject() { return state().inj; }
void failCall(const std::string& fn, GLenum error, int nth) { state().armed.push_back({fn, error, nth < 1 ? 1 : nth}); }
const std::vector<Call>& calls() { return state().calls; }

std::vector<Call> callsTo(const std::string& fn) {
    std::vector<Call> out;
    for (const Call& c : state().calls)
        if (c.fn == fn) out.push_back(c);
    return out;
}

size_t countCalls(const std::string& fn) { return state().callCounts[fn]; }

size_t liveObjects(const std::string& kind) { return state().live[kind].size(); }
size_t createdObjects(const std::string& kind) { return state().created[kind]; }
size_t doubleDeletes() { return state().doubleDeletes; }
bool isLive(const std::string& kind, uint64_t name) { return state().live[kind].count(name) != 0; }

EGLint attribValue(const Call& call, EGLint name, EGLint missing) {
    const std::vector<EGLint>& a = call.attribs;
    for (size_t i = 0; i + 1 < a.size() && a[i] != EGL_NONE; i += 2)
        if (a[i] == name) return a[i + 1];
    return missing;
}

}  // namespace fakegl
