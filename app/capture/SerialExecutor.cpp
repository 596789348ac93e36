#include "app/capture/SerialExecutor.h"

#include <future>

namespace kavelo {

SerialExecutor::SerialExecutor() : thread_([this] { run(); }) {}

SerialExecutor::~SerialExecutor() {
    {
        std::lock_guard lock(mutex_);
        closing_ = true;
    }
    changed_.notify_all();
    if (isCurrent()) {
        thread_.detach();
    } else {
        thread_.join();
    }
}

void SerialExecutor::post(std::function<void()> job) {
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    changed_.notify_one();
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

void SerialExecutor::run() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [&] { return closing_ || !jobs_.empty(); });
            if (jobs_.empty()) {
                return;
            }
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();
    }
}

} // namespace kavelo
