#pragma once

#include <functional>
#include <memory>

namespace kavelo {

// Delayed and repeating work on the thread that owns the detection service. The desktop program backs it
// with its event loop's timers; tests use ManualScheduler.
class MainThreadScheduler {
  public:
    // A pending piece of work. Destroying the handle cancels it; so does cancel(). Both are allowed from
    // inside the work itself (the service drops a handle while its work runs).
    class Handle {
      public:
        virtual ~Handle() = default;
        virtual void cancel() = 0;
    };

    virtual ~MainThreadScheduler() = default;
    [[nodiscard]] virtual std::unique_ptr<Handle> after(double seconds, std::function<void()> work) = 0;
    [[nodiscard]] virtual std::unique_ptr<Handle> every(double seconds, std::function<void()> work) = 0;
};

} // namespace kavelo
