#include "core/support/Task.h"

#include <cstdio>
#include <exception>
#include <thread>

namespace kavelo {

Task Task::run(std::function<void()> body) {
    auto state = std::make_shared<State>();
    std::thread([state, body = std::move(body)]() mutable {
        {
            CancellationToken::Scope scope(state->token);
            try {
                body();
            } catch (const CancellationError&) {
                // A cancelled task simply ends.
            } catch (const std::exception& e) {
                std::fprintf(stderr, "[error] task: ended by an unexpected exception: %s\n", e.what());
            } catch (...) {
                std::fprintf(stderr, "[error] task: ended by an unexpected exception\n");
            }
            // Whatever the body captured (often a weak owner) is released before joiners wake.
            body = nullptr;
        }
        std::lock_guard lock(state->mutex);
        state->finished = true;
        state->finishedCv.notify_all();
    }).detach();
    return Task(std::move(state));
}

void Task::cancel() const {
    if (state_) {
        state_->token->cancel();
    }
}

bool Task::isCancelled() const {
    return state_ && state_->token->isCancelled();
}

bool Task::isFinished() const {
    if (!state_) {
        return true;
    }
    std::lock_guard lock(state_->mutex);
    return state_->finished;
}

void Task::join() const {
    if (!state_ || CancellationToken::current() == state_->token) {
        return;
    }
    std::unique_lock lock(state_->mutex);
    state_->finishedCv.wait(lock, [this] { return state_->finished; });
}

bool Task::isCurrentCancelled() {
    return CancellationToken::current()->isCancelled();
}

void Task::checkCancellation() {
    if (isCurrentCancelled()) {
        throw CancellationError();
    }
}

} // namespace kavelo
