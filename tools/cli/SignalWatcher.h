#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace kavelo::cli {

// Turns SIGINT and SIGTERM into calls on an ordinary thread, so that a stop can take locks, log and wait
// for uploads, none of which a signal handler may do. Signals are blocked for the whole process by
// blockStopSignals(), called first thing in main: every thread started later (libcurl, GDBus, the audio
// server's) inherits the mask, so no stray thread can take a Ctrl-C and die of it.
//
// One handler is installed at a time; a Scope installs one for a stretch of code and counts the signals
// anew. The handler runs on the watcher's thread with no lock held; it must not wait for the thread that
// ends its Scope, since ending a Scope waits for a call under way to return.
class SignalWatcher {
  public:
    // signal: SIGINT or SIGTERM; count: how many arrived since the handler was installed, this one included.
    using Handler = std::function<void(int signal, int count)>;

    // Blocks SIGINT and SIGTERM in the calling thread and ignores SIGPIPE (a closed pipe on standard
    // output must end in a write error, not kill a recording).
    static void blockStopSignals();

    explicit SignalWatcher(Handler fallback);
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

    class Scope {
      public:
        Scope(SignalWatcher& watcher, Handler handler);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        SignalWatcher& watcher_;
        Handler previous_;
    };

  private:
    // Installs handler and returns the one it replaced, once no call of that one is under way.
    Handler replace(Handler handler);
    void run();

    std::mutex mutex_;
    std::condition_variable idle_;
    Handler handler_;       // guarded by mutex_
    int count_ = 0;         // guarded by mutex_
    bool calling_ = false;  // guarded by mutex_
    bool stopping_ = false; // guarded by mutex_
    std::thread thread_;
};

} // namespace kavelo::cli
