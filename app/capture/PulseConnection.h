#pragma once

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

    // With the lock held: waits until the operation is done and releases it. The operation's callback must
    // call signal(), or the wait never ends.
    // False when op is null or the connection broke meanwhile.
    bool await(pa_operation* op);
    // With the lock held: blocks until signalled from a callback (see signal()).
    void wait();
    // From a callback on the loop thread: wakes wait() and await().
    void signal();

  private:
    PulseConnection() = default;

    pa_threaded_mainloop* loop_ = nullptr;
    pa_context* context_ = nullptr;
};

} // namespace kavelo
