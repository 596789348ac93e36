#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

struct pa_context;
struct pa_operation;
struct pa_threaded_mainloop;

namespace kavelo {

// One client connection to a PulseAudio-protocol server (PulseAudio itself or pipewire-pulse), with its
// own threaded main loop. Every PulseAudio object of the capture code lives on one of these.
//
// Threads: the main loop runs on a thread of its own; every call into libpulse from another thread must
// hold the loop lock (Lock below). Callbacks of libpulse run on the loop thread with the lock held.
class PulseConnection {
  public:
    // Connects without autospawning a server. On failure returns null and, when error is given, stores
    // libpulse's error code there (PA_ERR_ACCESS when the server refuses us).
    static std::unique_ptr<PulseConnection> connect(const std::string& clientName, int* error = nullptr);
    ~PulseConnection();
    PulseConnection(const PulseConnection&) = delete;
    PulseConnection& operator=(const PulseConnection&) = delete;

    class Lock {
      public:
        explicit Lock(PulseConnection& connection);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

      private:
        pa_threaded_mainloop* loop_;
    };

    [[nodiscard]] pa_context* context() const { return context_; }
    [[nodiscard]] pa_threaded_mainloop* mainloop() const { return loop_; }
    [[nodiscard]] bool isLoopThread() const;

    // Every wait below ends after waitLimit, or as soon as the calling task is cancelled: a server that
    // stops answering in the middle of a request must not hang a start, a stop or a device listing.
    static constexpr double waitLimitSeconds = 5.0;

    // With the lock held: waits until the operation is done and releases it. The operation's callback must
    // call signal().
    // False when op is null, the connection broke, the server did not answer in time or the task was
    // cancelled.
    bool await(pa_operation* op);
    // With the lock held: blocks until signalled from a callback (see signal()), or at most a tenth of a
    // second. Returns false once the wait begun at `since` has passed waitLimit or the task is cancelled.
    bool wait(std::chrono::steady_clock::time_point since);
    // From a callback on the loop thread: wakes wait() and await().
    void signal();

  private:
    PulseConnection() = default;

    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* context_ = nullptr;
};

} // namespace kavelo
