#include "core/recording/EersteBeeldPoort.h"

#include "core/support/Task.h"

#include <atomic>

namespace kavelo {

EersteBeeldPoort::EersteBeeldPoort(double deadlineSeconds, const Wekker& wekker, Callback onOpen) {
    state_->onOpen = std::move(onOpen);
    std::weak_ptr<State> weak = state_;
    auto annuleer = wekker(deadlineSeconds, [weak] {
        if (auto state = weak.lock()) {
            open(*state);
        }
    });
    // A timer that fired synchronously has already opened the gate; its canceller is of no use then.
    if (state_->onOpen) {
        state_->annuleerWekker = std::move(annuleer);
    }
}

EersteBeeldPoort::~EersteBeeldPoort() {
    if (auto annuleer = std::move(state_->annuleerWekker)) {
        annuleer();
    }
}

void EersteBeeldPoort::open(State& state) {
    if (state.gestopt || !state.onOpen) {
        return;
    }
    auto onOpen = std::move(state.onOpen);
    state.onOpen = nullptr;
    auto annuleer = std::move(state.annuleerWekker);
    state.annuleerWekker = nullptr;
    if (annuleer) {
        annuleer();
    }
    onOpen();
}

void EersteBeeldPoort::dataBinnen() {
    open(*state_);
}

void EersteBeeldPoort::stop() {
    state_->gestopt = true;
    auto annuleer = std::move(state_->annuleerWekker);
    state_->annuleerWekker = nullptr;
    state_->onOpen = nullptr;
    if (annuleer) {
        annuleer();
    }
}

EersteBeeldPoort::Wekker EersteBeeldPoort::hoofdwekker(MainQueue mainQueue, std::shared_ptr<Clock> clock) {
    return [mainQueue = std::move(mainQueue), clock = std::move(clock)](double seconds, Callback callback) {
        auto cancelled = std::make_shared<std::atomic<bool>>(false);
        auto task = Task::run([mainQueue, clock, seconds, cancelled, callback = std::move(callback)] {
            clock->sleep(seconds); // a cancelled task's sleep throws and the task ends
            if (cancelled->load()) {
                return;
            }
            mainQueue([cancelled, callback] {
                if (!cancelled->load()) {
                    callback();
                }
            });
        });
        return Annuleer([task, cancelled] {
            cancelled->store(true);
            task.cancelAndJoin();
        });
    };
}

} // namespace kavelo
