#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace kavelo {

// A serial queue on a thread of its own: jobs run one at a time in the order posted. What only this
// queue's jobs touch needs no lock.
//
// The queue may be destroyed by one of its own jobs (a job that drops the last reference to the owner):
// its thread is then detached and finishes the remaining jobs on the shared state, which outlives the
// executor.
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
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        std::deque<std::function<void()>> jobs; // guarded by mutex
        bool closing = false;                   // guarded by mutex
    };
    static void run(const std::shared_ptr<State>& state);

    const std::shared_ptr<State> state_ = std::make_shared<State>();
    std::thread thread_;
};

} // namespace kavelo
