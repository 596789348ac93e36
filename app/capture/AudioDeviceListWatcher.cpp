#include "app/capture/AudioDeviceListWatcher.h"

#include "app/capture/PulseConnection.h"

#include <pulse/pulseaudio.h>

#include <utility>

namespace kavelo {

namespace {
void onEvent(pa_context*, pa_subscription_event_type_t type, std::uint32_t, void* userdata) {
    auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    auto kind = type & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
    // Devices matter when they come or go (not when a volume moves); the server changes when a default does.
    bool device = (facility == PA_SUBSCRIPTION_EVENT_SINK || facility == PA_SUBSCRIPTION_EVENT_SOURCE) &&
                  kind != PA_SUBSCRIPTION_EVENT_CHANGE;
    if (device || facility == PA_SUBSCRIPTION_EVENT_SERVER) {
        static_cast<AudioDeviceListWatcher*>(userdata)->notify();
    }
}
void onSubscribed(pa_context*, int, void* userdata) {
    static_cast<PulseConnection*>(userdata)->signal();
}
} // namespace

std::shared_ptr<AudioDeviceListWatcher> AudioDeviceListWatcher::make(std::shared_ptr<Clock> clock) {
    return std::shared_ptr<AudioDeviceListWatcher>(new AudioDeviceListWatcher(std::move(clock)));
}

AudioDeviceListWatcher::AudioDeviceListWatcher(std::shared_ptr<Clock> clock) : clock_(std::move(clock)) {}

AudioDeviceListWatcher::~AudioDeviceListWatcher() {
    stop();
    Task debounce;
    {
        std::lock_guard lock(mutex_);
        debounce = std::exchange(debounce_, {});
    }
    debounce.cancelAndJoin();
}

bool AudioDeviceListWatcher::start(std::function<void()> onChange) {
    stop();
    {
        std::lock_guard lock(mutex_);
        onChange_ = std::move(onChange);
    }
    auto connection = PulseConnection::connect("Kavely device watcher");
    if (!connection) {
        return false;
    }
    {
        PulseConnection::Lock lock(*connection);
        pa_context_set_subscribe_callback(connection->context(), onEvent, this);
        auto mask = static_cast<pa_subscription_mask_t>(
            PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SERVER);
        if (!connection->await(
                pa_context_subscribe(connection->context(), mask, onSubscribed, connection.get()))) {
            pa_context_set_subscribe_callback(connection->context(), nullptr, nullptr);
            return false;
        }
    }
    std::lock_guard lock(mutex_);
    connection_ = std::move(connection);
    return true;
}

void AudioDeviceListWatcher::stop() {
    std::unique_ptr<PulseConnection> connection;
    {
        std::lock_guard lock(mutex_);
        connection = std::move(connection_);
    }
    if (connection) {
        PulseConnection::Lock lock(*connection);
        pa_context_set_subscribe_callback(connection->context(), nullptr, nullptr);
    }
    // The connection (and with it the loop thread that calls notify) ends here, outside mutex_.
}

void AudioDeviceListWatcher::notify() {
    std::weak_ptr<AudioDeviceListWatcher> weak = weak_from_this();
    auto clock = clock_;
    std::lock_guard lock(mutex_);
    if (pending_) {
        return;
    }
    pending_ = true;
    debounce_ = Task::run([weak, clock] {
        try {
            clock->sleep(debounceSeconds);
        } catch (...) {
            return; // cancelled: the watcher is going away
        }
        auto self = weak.lock();
        if (!self) {
            return;
        }
        std::function<void()> onChange;
        {
            std::lock_guard lock(self->mutex_);
            self->pending_ = false;
            onChange = self->onChange_;
        }
        if (onChange) {
            onChange();
        }
    });
}

} // namespace kavelo
