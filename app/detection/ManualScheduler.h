#pragma once

#include "app/detection/MainThreadScheduler.h"
#include "core/support/ManualClock.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace kavelo {

// A scheduler that runs work only when advance() moves its manual clock past the work's time. Work runs in
// time order, with the clock set to the time it was due, so the code under test reads the time it expects.
class ManualScheduler final : public MainThreadScheduler {
  public:
    explicit ManualScheduler(std::shared_ptr<ManualClock> clock);

    std::unique_ptr<Handle> after(double seconds, std::function<void()> work) override;
    std::unique_ptr<Handle> every(double seconds, std::function<void()> work) override;

    void advance(double seconds);
    [[nodiscard]] std::size_t pendingCount() const;

  private:
    struct Item {
        std::uint64_t id = 0;
        TimePoint due;
        double interval = 0; // 0: once
        std::function<void()> work;
        std::shared_ptr<bool> alive;
    };
    std::unique_ptr<Handle> add(double seconds, double interval, std::function<void()> work);

    std::shared_ptr<ManualClock> clock_;
    std::vector<Item> items_;
    std::uint64_t nextId_ = 1;
};

} // namespace kavelo
