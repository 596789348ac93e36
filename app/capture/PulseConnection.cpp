#include "app/capture/PulseConnection.h"

#include "core/support/CancellationToken.h"

#include <pulse/pulseaudio.h>
#include <pulse/rtclock.h>

namespace kavelo {

namespace {
void onContextState(pa_context*, void* userdata) {
    pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(userdata), 0);
}

void onWakeUp(pa_mainloop_api*, pa_time_event*, const timeval*, void* userdata) {
    pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(userdata), 0);
}

// With the loop lock held: one wait for a signal, cut short after a tenth of a second by a timer of the
// loop itself (libpulse's threaded loop has no timed wait).
void waitBriefly(pa_threaded_mainloop* loop, pa_context* context) {
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(loop);
    pa_time_event* timer =
        pa_context_rttime_new(context, pa_rtclock_now() + 100 * PA_USEC_PER_MSEC, onWakeUp, loop);
    pa_threaded_mainloop_wait(loop);
    if (timer != nullptr) {
        api->time_free(timer);
    }
}

bool withinLimit(std::chrono::steady_clock::time_point since) {
    const auto limit = std::chrono::duration<double>(PulseConnection::waitLimitSeconds);
    return std::chrono::steady_clock::now() - since < limit && !CancellationToken::current()->isCancelled();
}
} // namespace

std::unique_ptr<PulseConnection> PulseConnection::connect(const std::string& clientName, int* error) {
    std::unique_ptr<PulseConnection> connection(new PulseConnection());
    connection->loop_ = pa_threaded_mainloop_new();
    if (connection->loop_ == nullptr) {
        return nullptr;
    }
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Kavely");
    pa_proplist_sets(props, PA_PROP_APPLICATION_ID, "com.kavely.linux");
    connection->context_ = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(connection->loop_),
                                                        clientName.c_str(), props);
    pa_proplist_free(props);
    if (connection->context_ == nullptr) {
        return nullptr;
    }
    pa_context_set_state_callback(connection->context_, onContextState, connection->loop_);
    if (pa_threaded_mainloop_start(connection->loop_) < 0) {
        return nullptr;
    }
    bool ready = false;
    {
        Lock lock(*connection);
        if (pa_context_connect(connection->context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) {
            const auto since = std::chrono::steady_clock::now();
            while (withinLimit(since)) {
                auto state = pa_context_get_state(connection->context_);
                if (state == PA_CONTEXT_READY) {
                    ready = true;
                    break;
                }
                if (!PA_CONTEXT_IS_GOOD(state)) {
                    break;
                }
                waitBriefly(connection->loop_, connection->context_);
            }
        }
        if (!ready && error != nullptr) {
            *error = pa_context_errno(connection->context_);
        }
    }
    if (!ready) {
        return nullptr;
    }
    return connection;
}

PulseConnection::~PulseConnection() {
    if (loop_ != nullptr && context_ != nullptr) {
        pa_threaded_mainloop_lock(loop_);
        pa_context_set_state_callback(context_, nullptr, nullptr);
        pa_context_disconnect(context_);
        pa_threaded_mainloop_unlock(loop_);
    }
    if (loop_ != nullptr) {
        pa_threaded_mainloop_stop(loop_);
    }
    if (context_ != nullptr) {
        pa_context_unref(context_);
    }
    if (loop_ != nullptr) {
        pa_threaded_mainloop_free(loop_);
    }
}

PulseConnection::Lock::Lock(PulseConnection& connection) : loop_(connection.loop_) {
    pa_threaded_mainloop_lock(loop_);
}
PulseConnection::Lock::~Lock() {
    pa_threaded_mainloop_unlock(loop_);
}

bool PulseConnection::isLoopThread() const {
    return pa_threaded_mainloop_in_thread(loop_) != 0;
}

bool PulseConnection::await(pa_operation* op) {
    if (op == nullptr) {
        return false;
    }
    const auto since = std::chrono::steady_clock::now();
    while (pa_operation_get_state(op) == PA_OPERATION_RUNNING) {
        if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context_)) || !wait(since)) {
            pa_operation_cancel(op);
            break;
        }
    }
    bool done = pa_operation_get_state(op) == PA_OPERATION_DONE;
    pa_operation_unref(op);
    return done;
}

bool PulseConnection::wait(std::chrono::steady_clock::time_point since) {
    if (!withinLimit(since)) {
        return false;
    }
    waitBriefly(loop_, context_);
    return true;
}
void PulseConnection::signal() {
    pa_threaded_mainloop_signal(loop_, 0);
}

} // namespace kavelo
