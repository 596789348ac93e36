#pragma once

#include "core/support/Clock.h"

#include <functional>
#include <memory>

namespace kavelo {

// The first-picture gate: a view that waits for its first data is shown when the data is in or when a short
// deadline passes, whichever comes first, and at most once.
//
// Thread-safety: none. The gate is used from the GUI thread only, and its timer must call back on that
// thread too (hoofdwekker posts through the given main queue).
class EersteBeeldPoort {
  public:
    using Callback = std::function<void()>;
    using Annuleer = std::function<void()>; // cancels a scheduled timer
    // Schedules callback after the given number of seconds; gives the function that cancels it.
    using Wekker = std::function<Annuleer(double seconds, Callback callback)>;
    // Runs a callback on the GUI thread, later.
    using MainQueue = std::function<void(Callback)>;

    static constexpr double deadline = 0.45;

    // The default timer: sleeps on clock in a task of its own, then posts the callback to the main queue.
    // Cancelling stops the task and makes an already posted callback do nothing.
    static Wekker hoofdwekker(MainQueue mainQueue, std::shared_ptr<Clock> clock);

    EersteBeeldPoort(double deadlineSeconds, const Wekker& wekker, Callback onOpen);
    ~EersteBeeldPoort();
    EersteBeeldPoort(const EersteBeeldPoort&) = delete;
    EersteBeeldPoort& operator=(const EersteBeeldPoort&) = delete;

    // The view's data has come.
    void dataBinnen();
    // The view disappears: after this, neither the timer nor dataBinnen calls anything.
    void stop();

  private:
    struct State {
        Callback onOpen;
        Annuleer annuleerWekker;
        bool gestopt = false;
    };
    static void open(State& state);

    // Shared so that the timer's callback can hold the gate weakly.
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

} // namespace kavelo
