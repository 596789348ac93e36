#include "app/capture/PulseCaptureStream.h"

#include "app/capture/PulseConnection.h"
#include "core/support/CancellationToken.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace kavelo {

void PulseCaptureStream::onState(pa_stream*, void* userdata) {
    static_cast<PulseCaptureStream*>(userdata)->connection_->signal();
}

void PulseCaptureStream::onRead(pa_stream* stream, std::size_t, void* userdata) {
    auto* self = static_cast<PulseCaptureStream*>(userdata);
    const void* data = nullptr;
    std::size_t bytes = 0;
    while (pa_stream_readable_size(stream) > 0) {
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0) {
            return;
        }
        {
            std::lock_guard lock(self->shared_->mutex);
            auto& pending = self->shared_->pending;
            const std::size_t frames = bytes / sizeof(float);
            if (data == nullptr) {
                pending.insert(pending.end(), frames, 0.0f); // a hole: keep the timeline with silence
            } else {
                auto old = pending.size();
                pending.resize(old + frames);
                std::memcpy(pending.data() + old, data, frames * sizeof(float));
            }
            if (pending.size() > maxQueuedFrames) {
                pending.erase(pending.begin(), pending.begin() + long(pending.size() - maxQueuedFrames));
            }
            self->shared_->received = true;
        }
        self->shared_->changed.notify_all(); // the worker, and a start waiting for the first samples
        pa_stream_drop(stream);
    }
}

void PulseCaptureStream::work(const std::shared_ptr<Shared>& shared) {
    std::vector<float> buffer(framesPerBuffer);
    for (;;) {
        {
            std::unique_lock lock(shared->mutex);
            shared->changed.wait(
                lock, [&] { return shared->closing || shared->pending.size() >= framesPerBuffer; });
            if (shared->closing) {
                return;
            }
            std::memcpy(buffer.data(), shared->pending.data(), framesPerBuffer * sizeof(float));
            shared->pending.erase(shared->pending.begin(), shared->pending.begin() + long(framesPerBuffer));
        }
        shared->handler(buffer.data(), buffer.size());
    }
}

std::unique_ptr<PulseCaptureStream> PulseCaptureStream::open(std::unique_ptr<PulseConnection> connection,
                                                             const Target& target,
                                                             MonoBufferHandler handler) {
    std::unique_ptr<PulseCaptureStream> self(new PulseCaptureStream());
    self->connection_ = std::move(connection);
    self->shared_->handler = std::move(handler);

    pa_sample_spec format{PA_SAMPLE_FLOAT32LE, 48000, 1};
    std::string failure;
    {
        PulseConnection::Lock lock(*self->connection_);
        pa_proplist* props = pa_proplist_new();
        pa_proplist_sets(props, PA_PROP_MEDIA_ROLE, "production");
        self->stream_ = pa_stream_new_with_proplist(self->connection_->context(), target.streamName.c_str(),
                                                    &format, nullptr, props);
        pa_proplist_free(props);
        if (self->stream_ == nullptr) {
            throw std::runtime_error(
                "pa_stream_new: " + std::string(pa_strerror(pa_context_errno(self->connection_->context()))));
        }
        pa_stream_set_state_callback(self->stream_, onState, self.get());
        pa_stream_set_read_callback(self->stream_, onRead, self.get());
        if (target.sinkInput) {
            pa_stream_set_monitor_stream(self->stream_, *target.sinkInput);
        }
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<std::uint32_t>(-1);
        attr.fragsize = static_cast<std::uint32_t>(framesPerFragment * sizeof(float));
        auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY |
                                                    (target.allowMoves ? 0 : PA_STREAM_DONT_MOVE));
        if (pa_stream_connect_record(self->stream_, target.source.c_str(), &attr, flags) < 0) {
            failure = "pa_stream_connect_record: " +
                      std::string(pa_strerror(pa_context_errno(self->connection_->context())));
        } else {
            const auto since = std::chrono::steady_clock::now();
            for (;;) {
                auto state = pa_stream_get_state(self->stream_);
                if (state == PA_STREAM_READY) {
                    break;
                }
                if (!PA_STREAM_IS_GOOD(state)) {
                    failure = "stream failed: " +
                              std::string(pa_strerror(pa_context_errno(self->connection_->context())));
                    break;
                }
                if (!self->connection_->wait(since)) {
                    failure = "the audio server did not start the stream in time";
                    break;
                }
            }
        }
        // A stream that lands elsewhere than asked (say the microphone where a monitor was meant) is a
        // failure, not a recording of the wrong thing.
        if (failure.empty()) {
            const char* device = pa_stream_get_device_name(self->stream_);
            if (device == nullptr || target.source != device) {
                failure = "stream connected to " + std::string(device ? device : "nothing") + " instead of " +
                          target.source;
            }
        }
    }
    if (!failure.empty()) {
        self->closeStream();
        throw std::runtime_error(failure);
    }
    self->worker_ = std::thread([shared = self->shared_] { work(shared); });
    return self;
}

bool PulseCaptureStream::waitForFirstSamples(double timeoutSeconds) {
    const auto token = CancellationToken::current();
    const auto deadline =
        std::chrono::steady_clock::now() +
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(timeoutSeconds));
    std::unique_lock lock(shared_->mutex);
    // Woken by the samples themselves; the tenth-of-a-second steps only look at the task's cancellation.
    while (!shared_->received && !token->isCancelled() && std::chrono::steady_clock::now() < deadline) {
        shared_->changed.wait_until(
            lock, std::min(deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(100)));
    }
    return shared_->received;
}

void PulseCaptureStream::closeStream() {
    if (!connection_) {
        return;
    }
    PulseConnection::Lock lock(*connection_);
    if (stream_ != nullptr) {
        pa_stream_set_state_callback(stream_, nullptr, nullptr);
        pa_stream_set_read_callback(stream_, nullptr, nullptr);
        pa_stream_disconnect(stream_);
        pa_stream_unref(stream_);
        stream_ = nullptr;
    }
}

PulseCaptureStream::~PulseCaptureStream() {
    closeStream();
    {
        std::lock_guard lock(shared_->mutex);
        shared_->closing = true;
    }
    shared_->changed.notify_all();
    if (worker_.joinable()) {
        if (worker_.get_id() == std::this_thread::get_id()) {
            worker_.detach(); // destroyed from its own handler: the worker ends when the handler returns
        } else {
            worker_.join();
        }
    }
}

} // namespace kavelo
