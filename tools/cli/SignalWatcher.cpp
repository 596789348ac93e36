#include "tools/cli/SignalWatcher.h"

#include <csignal>
#include <ctime>

#include <pthread.h>

namespace kavelo::cli {

namespace {
sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}
} // namespace

void SignalWatcher::blockStopSignals() {
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

SignalWatcher::SignalWatcher(Handler fallback) : handler_(std::move(fallback)) {
    blockStopSignals();
    thread_ = std::thread([this] { run(); });
}

SignalWatcher::~SignalWatcher() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    thread_.join();
}

void SignalWatcher::run() {
    const sigset_t waitSet = stopSignals();
    // The wait wakes now and then to see whether the program is ending; between signals nothing runs.
    const timespec tick{0, 250'000'000};
    while (true) {
        {
            std::lock_guard lock(mutex_);
            if (stopping_) {
                return;
            }
        }
        const int signal = sigtimedwait(&waitSet, nullptr, &tick);
        if (signal <= 0) {
            continue;
        }
        Handler handler;
        int count = 0;
        {
            std::lock_guard lock(mutex_);
            count = ++count_;
            handler = handler_;
            calling_ = true;
        }
        if (handler) {
            handler(signal, count);
        }
        {
            std::lock_guard lock(mutex_);
            calling_ = false;
        }
        idle_.notify_all();
    }
}

SignalWatcher::Handler SignalWatcher::replace(Handler handler) {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return !calling_; });
    count_ = 0;
    std::swap(handler_, handler);
    return handler;
}

SignalWatcher::Scope::Scope(SignalWatcher& watcher, Handler handler)
    : watcher_(watcher), previous_(watcher.replace(std::move(handler))) {}

SignalWatcher::Scope::~Scope() {
    (void)watcher_.replace(std::move(previous_));
}

} // namespace kavelo::cli
