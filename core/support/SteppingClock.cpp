#include "core/support/SteppingClock.h"

#include <algorithm>

namespace kavelo {

SteppingClock::SteppingClock(TimePoint start) : now_(start) {}

TimePoint SteppingClock::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

void SteppingClock::sleep(double seconds) {
    auto sleeper = std::make_shared<Sleeper>();
    sleeper->token = CancellationToken::current();
    if (sleeper->token->isCancelled()) {
        throw CancellationError();
    }
    {
        std::lock_guard lock(mutex_);
        sleeper->deadline = addSeconds(now_, std::max(seconds, 0.0));
        sleepers_.push_back(sleeper);
    }
    changed_.notify_all();
    bool woke = sleeper->token->waitUntil([&] { return sleeper->released.load(); });
    {
        std::lock_guard lock(mutex_);
        std::erase(sleepers_, sleeper);
    }
    changed_.notify_all();
    if (!woke) {
        throw CancellationError();
    }
}

void SteppingClock::advance(double seconds) {
    TimePoint target;
    {
        std::lock_guard lock(mutex_);
        target = addSeconds(now_, seconds);
    }
    for (;;) {
        std::vector<std::shared_ptr<Sleeper>> woken;
        {
            std::lock_guard lock(mutex_);
            auto next = target;
            for (const auto& s : sleepers_) {
                if (!s->released && s->deadline < next) {
                    next = s->deadline;
                }
            }
            now_ = std::max(now_, next);
            for (const auto& s : sleepers_) {
                if (!s->released && s->deadline <= now_) {
                    s->released = true;
                    woken.push_back(s);
                }
            }
            if (woken.empty() && now_ >= target) {
                return;
            }
        }
        for (const auto& s : woken) {
            s->token->notify();
        }
        settleAfterWake(woken);
    }
}

void SteppingClock::settleAfterWake(const std::vector<std::shared_ptr<Sleeper>>& woken) {
    std::unique_lock lock(mutex_);
    // First the woken leave sleep(); that is certain to happen.
    changed_.wait(lock, [&] {
        return std::none_of(woken.begin(), woken.end(), [&](const auto& s) {
            return std::find(sleepers_.begin(), sleepers_.end(), s) != sleepers_.end();
        });
    });
    // Then give each the chance to reach its next sleep before time moves on. A task that ends instead
    // never comes back, so this part is bounded; tests that need certainty call waitForSleepers.
    auto before = sleepers_.size();
    changed_.wait_for(lock, std::chrono::milliseconds(200),
                      [&] { return sleepers_.size() >= before + woken.size(); });
}

bool SteppingClock::waitForSleepers(std::size_t count, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] {
        return static_cast<std::size_t>(std::count_if(sleepers_.begin(), sleepers_.end(), [](const auto& s) {
                   return !s->released.load();
               })) >= count;
    });
}

std::size_t SteppingClock::sleeperCount() const {
    std::lock_guard lock(mutex_);
    return sleepers_.size();
}

} // namespace kavelo
