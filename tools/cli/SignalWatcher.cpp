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

SignalWatcher::SignalWatcher(std::function<void(int)> onSignal) : onSignal_(std::move(onSignal)) {
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    thread_ = std::thread([this] {
        const sigset_t waitSet = stopSignals();
        const timespec tick{0, 200'000'000};
        while (!stopping_.load()) {
            const int signal = sigtimedwait(&waitSet, nullptr, &tick);
            if (signal > 0) {
                seen_.fetch_add(1);
                onSignal_(signal);
            }
        }
    });
}

SignalWatcher::~SignalWatcher() {
    stopping_.store(true);
    thread_.join();
}

} // namespace kavelo::cli
