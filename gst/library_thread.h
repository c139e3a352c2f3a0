// A thread of its own for the stitching library, whose instance belongs to the thread that made
// it: every call into the library is a job run here, one at a time, whichever thread asks.
#ifndef ZQAVS_GST_LIBRARY_THREAD_H
#define ZQAVS_GST_LIBRARY_THREAD_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

namespace zqavs_gst {

class LibraryThread {
public:
    LibraryThread();
    // Runs the jobs still queued, then joins.
    ~LibraryThread();
    LibraryThread(const LibraryThread&) = delete;
    LibraryThread& operator=(const LibraryThread&) = delete;

    // Runs `job` on the thread and returns when it is done.
    void run(std::function<void()> job);

private:
    void loop();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::packaged_task<void()>> jobs_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace zqavs_gst

#endif  // ZQAVS_GST_LIBRARY_THREAD_H
