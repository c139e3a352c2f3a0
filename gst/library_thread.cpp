#include "library_thread.h"

namespace zqavs_gst {

LibraryThread::LibraryThread() : thread_([this] { loop(); }) {}

LibraryThread::~LibraryThread()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void LibraryThread::run(std::function<void()> job)
{
    std::packaged_task<void()> task(std::move(job));
    std::future<void> done = task.get_future();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        jobs_.push_back(std::move(task));
    }
    wake_.notify_one();
    done.get();
}

void LibraryThread::loop()
{
    for (;;) {
        std::packaged_task<void()> task;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (jobs_.empty()) return;
            task = std::move(jobs_.front());
            jobs_.pop_front();
        }
        task();
    }
}

}  // namespace zqavs_gst
