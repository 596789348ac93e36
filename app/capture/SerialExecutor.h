#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace kavelo {

// A serial queue on a thread of its own: jobs run one at a time in the order posted. What only this
// queue's jobs touch needs no lock.
class SerialExecutor {
  public:
    SerialExecutor();
    // Runs the jobs still queued, then ends the thread.
    ~SerialExecutor();
    SerialExecutor(const SerialExecutor&) = delete;
    SerialExecutor& operator=(const SerialExecutor&) = delete;

    void post(std::function<void()> job);
    // Runs job on the queue and waits for it. Must not be called from a job of this queue.
    void sync(const std::function<void()>& job);
    [[nodiscard]] bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

  private:
    void run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> jobs_; // guarded by mutex_
    bool closing_ = false;                   // guarded by mutex_
    std::thread thread_;
};

} // namespace kavelo
