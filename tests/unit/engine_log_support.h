// Engine tests against the fake driver: capture of standard output and matching of the
// library's error lines.
#ifndef ZQGFX_AVS_TEST_ENGINE_LOG_SUPPORT_H
#define ZQGFX_AVS_TEST_ENGINE_LOG_SUPPORT_H

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace engine_test {

template <class F>
std::string stdoutOf(F&& body)
{
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

// True when `out` holds "libzqgfx_avs: <function>,line=<n>: <text>" and the line's newline; an
// empty `function` matches any.
inline bool hasErrorLine(const std::string& out, const std::string& function, const std::string& text)
{
    const std::string prefix = "libzqgfx_avs: " + function;
    for (size_t at = out.find(prefix); at != std::string::npos; at = out.find(prefix, at + 1)) {
        size_t p = out.find(",line=", at + prefix.size());
        if (p == std::string::npos || (!function.empty() && p != at + prefix.size())) continue;
        for (p += 6; p < out.size() && isdigit(static_cast<unsigned char>(out[p]));) ++p;
        if (out.compare(p, text.size() + 3, ": " + text + "\n") == 0) return true;
    }
    return false;
}

inline bool hasErrorLine(const std::string& out, const std::string& text)
{
    return hasErrorLine(out, "", text);
}

}  // namespace engine_test

#endif  // ZQGFX_AVS_TEST_ENGINE_LOG_SUPPORT_H
