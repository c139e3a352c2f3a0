// Diagnostics of libzqgfx_avs: the log level, the two line forms and a wall-clock timer.
//
// Every source unit that includes this header gets its own private copy of the level (internal
// linkage). Only the entry points call UpdateAvsLogLevel(), so the engines' debug traces stay
// silent while their error lines are always written.
#ifndef ZQGFX_AVS_DEBUG_LOG_H
#define ZQGFX_AVS_DEBUG_LOG_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/time.h>

enum AVS_LOG_LEVEL {
    ANDROID_LOG_ERROR = 0,
    ANDROID_LOG_WARN = 1,
    ANDROID_LOG_INFO = 2,
    ANDROID_LOG_DEBUG = 3,
};

namespace zqgfx_gpu_avs {

// Atomic: one thread's init sets it while other threads' instances read it for their frames.
static std::atomic<int> avsDebugLogLevel{0};

[[maybe_unused]] static void UpdateAvsLogLevel()
{
    const char* value = getenv("ZQ_GPU_AVS_DEBUG_LOG");
    avsDebugLogLevel.store(value ? atoi(value) : 0, std::memory_order_relaxed);
}

[[maybe_unused]] static int AvsLogLevel()
{
    return avsDebugLogLevel.load(std::memory_order_relaxed);
}

// Milliseconds since the epoch, or 0 when logging is off (a cheap timestamp for traces).
[[maybe_unused]] static uint64_t GetAvsCurrentTimeUs()
{
    if (AvsLogLevel() == 0) return 0;
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
}

// Wall-clock interval in milliseconds: (s1 - s0) * 1000 + (us1 - us0) / 1000, kept as a float.
struct AvsTimer {
    struct timeval start;
    AvsTimer() { gettimeofday(&start, nullptr); }
    float elapsedMs() const
    {
        struct timeval end;
        gettimeofday(&end, nullptr);
        return static_cast<float>((end.tv_sec - start.tv_sec) * 1000.0 +
                                  (end.tv_usec - start.tv_usec) / 1000.0);
    }
};

}  // namespace zqgfx_gpu_avs

// Error form: always written. The newline is a separate write, so texts ending in "\n" leave an
// empty line after them; that is the library's established output.
#define AVS_LOGE(fmt, ...)                                                              \
    do {                                                                                \
        printf("libzqgfx_avs: %s,line=%d: " fmt, __FUNCTION__, __LINE__, ##__VA_ARGS__); \
        printf("\n");                                                                   \
    } while (0)

// Error form in the name of `function`: for helpers that report on behalf of their caller.
#define AVS_LOGE_IN(function, fmt, ...)                                                  \
    do {                                                                                \
        printf("libzqgfx_avs: %s,line=%d: " fmt, function, __LINE__, ##__VA_ARGS__);     \
        printf("\n");                                                                   \
    } while (0)

// Trace form: written only above ANDROID_LOG_INFO.
#define AVS_LOGD(fmt, ...)                                                               \
    do {                                                                                 \
        if (zqgfx_gpu_avs::AvsLogLevel() > 2) {                                          \
            printf("libzqgfx_avs: %s(%d): " fmt, __FUNCTION__, __LINE__, ##__VA_ARGS__); \
            printf("\n");                                                                \
        }                                                                                \
    } while (0)

#define AVS_LOG_TIME(timer) AVS_LOGD("AVS-TIME use time=%f ms ", (timer).elapsedMs())

#endif  // ZQGFX_AVS_DEBUG_LOG_H
