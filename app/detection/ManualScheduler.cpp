#include "app/detection/ManualScheduler.h"

#include <algorithm>
#include <stdexcept>

namespace kavelo {

namespace {
class FlagHandle final : public MainThreadScheduler::Handle {
  public:
    explicit FlagHandle(std::shared_ptr<bool> alive) : alive_(std::move(alive)) {}
    ~FlagHandle() override { cancel(); }
    void cancel() override { *alive_ = false; }

  private:
    std::shared_ptr<bool> alive_;
};
} // namespace

ManualScheduler::ManualScheduler(std::shared_ptr<ManualClock> clock) : clock_(std::move(clock)) {}

std::unique_ptr<MainThreadScheduler::Handle> ManualScheduler::after(double seconds,
                                                                    std::function<void()> work) {
    return add(seconds, 0, std::move(work));
}

std::unique_ptr<MainThreadScheduler::Handle> ManualScheduler::every(double seconds,
                                                                    std::function<void()> work) {
    if (seconds <= 0) {
        throw std::invalid_argument("a repeating interval must be positive");
    }
    return add(seconds, seconds, std::move(work));
}

std::unique_ptr<MainThreadScheduler::Handle> ManualScheduler::add(double seconds, double interval,
                                                                  std::function<void()> work) {
    auto alive = std::make_shared<bool>(true);
    items_.push_back({nextId_++, addSeconds(clock_->now(), seconds), interval, std::move(work), alive});
    return std::make_unique<FlagHandle>(alive);
}

void ManualScheduler::advance(double seconds) {
    auto target = addSeconds(clock_->now(), seconds);
    for (;;) {
        std::erase_if(items_, [](const Item& item) { return !*item.alive; });
        // Earliest first; equal times in the order they were scheduled.
        auto next = std::min_element(items_.begin(), items_.end(), [](const Item& a, const Item& b) {
            return a.due != b.due ? a.due < b.due : a.id < b.id;
        });
        if (next == items_.end() || next->due > target) {
            break;
        }
        clock_->advance(secondsBetween(clock_->now(), next->due));
        auto work = next->work;
        auto alive = next->alive;
        if (next->interval > 0) {
            next->due = addSeconds(next->due, next->interval);
            next->id = nextId_++;
        } else {
            items_.erase(next);
        }
        // The work may schedule or cancel: items_ is not touched through an iterator after this call.
        if (*alive) {
            work();
        }
    }
    clock_->advance(secondsBetween(clock_->now(), target));
}

std::size_t ManualScheduler::pendingCount() const {
    return static_cast<std::size_t>(
        std::count_if(items_.begin(), items_.end(), [](const Item& item) { return *item.alive; }));
}

} // namespace kavelo
