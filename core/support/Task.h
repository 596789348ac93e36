#pragma once

#include "core/support/CancellationToken.h"

#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <type_traits>

namespace kavelo {

// A unit of background work with its own cancellation, on a thread of its own.
//
// Starting one never blocks. Dropping the handle neither cancels nor joins (the work runs on, detached);
// cancel() asks it to stop, and inside the body Task::checkCancellation() and Clock::sleep notice. Owners
// that hold a task cancel and join it on teardown, so nothing of theirs runs after they are gone.
//
// Thread-safety: every member may be called from any thread.
class Task {
  public:
    Task() = default;

    // Runs body on a new thread. A CancellationError escaping the body ends the task quietly.
    static Task run(std::function<void()> body);

    void cancel() const;
    [[nodiscard]] bool isCancelled() const;
    [[nodiscard]] bool isFinished() const;
    // Waits until the body has returned. Joining the task from inside itself returns at once.
    void join() const;
    void cancelAndJoin() const {
        cancel();
        join();
    }
    explicit operator bool() const { return state_ != nullptr; }

    // For code running inside a task (or on any thread: a plain thread is never cancelled).
    [[nodiscard]] static bool isCurrentCancelled();
    static void checkCancellation();

    // Starts a child of the running task: it shares the parent's cancellation, and the returned future,
    // when destroyed or waited on, awaits the child's end.
    template <class F> static auto child(F f) -> std::future<std::invoke_result_t<F>> {
        return std::async(std::launch::async,
                          [token = CancellationToken::current(), f = std::move(f)]() mutable {
                              CancellationToken::Scope scope(token);
                              return f();
                          });
    }

  private:
    struct State {
        std::shared_ptr<CancellationToken> token = std::make_shared<CancellationToken>();
        std::mutex mutex;
        std::condition_variable finishedCv;
        bool finished = false; // guarded by mutex
    };
    explicit Task(std::shared_ptr<State> state) : state_(std::move(state)) {}

    std::shared_ptr<State> state_;
};

} // namespace kavelo
