#include "app/capture/SerialExecutor.h"

#include <future>

namespace kavelo {

SerialExecutor::SerialExecutor() : thread_([state = state_] { run(state); }) {}

SerialExecutor::~SerialExecutor() {
    {
        std::lock_guard lock(state_->mutex);
        state_->closing = true;
    }
    state_->changed.notify_all();
    if (isCurrent()) {
        thread_.detach();
    } else {
        thread_.join();
    }
}

void SerialExecutor::post(std::function<void()> job) {
    {
        std::lock_guard lock(state_->mutex);
        state_->jobs.push_back(std::move(job));
    }
    state_->changed.notify_one();
}

void SerialExecutor::sync(const std::function<void()>& job) {
    std::promise<void> done;
    post([&] {
        try {
            job();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    done.get_future().get();
}

void SerialExecutor::run(const std::shared_ptr<State>& state) {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(state->mutex);
            state->changed.wait(lock, [&] { return state->closing || !state->jobs.empty(); });
            if (state->jobs.empty()) {
                return;
            }
            job = std::move(state->jobs.front());
            state->jobs.pop_front();
        }
        job();
    }
}

} // namespace kavelo
