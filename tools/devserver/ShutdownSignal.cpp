#include "tools/devserver/ShutdownSignal.h"

#include <chrono>

namespace kavelo {

void ShutdownSignal::trigger() {
    {
        std::lock_guard lock(mutex_);
        triggered_ = true;
    }
    cv_.notify_all();
}

bool ShutdownSignal::triggered() const {
    std::lock_guard lock(mutex_);
    return triggered_;
}

bool ShutdownSignal::waitFor(int milliseconds) {
    std::unique_lock lock(mutex_);
    return !cv_.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return triggered_; });
}

} // namespace kavelo
