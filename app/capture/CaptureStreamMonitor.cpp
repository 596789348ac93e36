#include "app/capture/CaptureStreamMonitor.h"

#include "app/capture/PulseConnection.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <unistd.h>
#include <utility>

namespace kavelo {

namespace {

struct Reading {
    PulseConnection* connection = nullptr;
    std::vector<CaptureStreamMonitor::RawStream> streams;
    std::vector<std::uint32_t> monitorSources;
};

std::string property(pa_proplist* props, const char* key) {
    const char* value = props ? pa_proplist_gets(props, key) : nullptr;
    if (value == nullptr) {
        return {};
    }
    return std::string(value, strnlen(value, CaptureStreamMonitor::maxPropertyLength));
}

void onSource(pa_context*, const pa_source_info* info, int eol, void* userdata) {
    auto* r = static_cast<Reading*>(userdata);
    if (eol == 0 && info != nullptr && info->monitor_of_sink != PA_INVALID_INDEX &&
        r->monitorSources.size() < CaptureStreamMonitor::maxStreams) {
        r->monitorSources.push_back(info->index);
    }
    if (eol != 0) {
        r->connection->signal();
    }
}

void onSourceOutput(pa_context*, const pa_source_output_info* info, int eol, void* userdata) {
    auto* r = static_cast<Reading*>(userdata);
    if (eol == 0 && info != nullptr && r->streams.size() < CaptureStreamMonitor::maxStreams) {
        CaptureStreamMonitor::RawStream stream;
        stream.owner.stream = info->index;
        stream.owner.applicationName = property(info->proplist, PA_PROP_APPLICATION_NAME);
        stream.owner.processBinary = property(info->proplist, PA_PROP_APPLICATION_PROCESS_BINARY);
        stream.owner.applicationId = property(info->proplist, PA_PROP_APPLICATION_ID);
        auto pidText = property(info->proplist, PA_PROP_APPLICATION_PROCESS_ID);
        pid_t pid = 0;
        auto [end, error] = std::from_chars(pidText.data(), pidText.data() + pidText.size(), pid);
        stream.owner.pid =
            error == std::errc{} && end == pidText.data() + pidText.size() && pid > 0 ? pid : 0;
        stream.source = info->source;
        stream.corked = info->corked != 0;
        stream.serverModule = info->client == PA_INVALID_INDEX;
        // PulseAudio resamples a peak-detect stream with the "peaks" method; PipeWire marks it a monitor.
        stream.peakDetect =
            (info->resample_method != nullptr && std::strcmp(info->resample_method, "peaks") == 0) ||
            property(info->proplist, "stream.monitor") == "true";
        r->streams.push_back(std::move(stream));
    }
    if (eol != 0) {
        r->connection->signal();
    }
}

void onEvent(pa_context*, pa_subscription_event_type_t type, std::uint32_t, void* userdata) {
    auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    if (facility == PA_SUBSCRIPTION_EVENT_SOURCE_OUTPUT || facility == PA_SUBSCRIPTION_EVENT_SOURCE) {
        static_cast<CaptureStreamMonitor*>(userdata)->notify();
    }
}

void onSubscribed(pa_context*, int, void* userdata) {
    static_cast<PulseConnection*>(userdata)->signal();
}

std::optional<Reading> readServer(PulseConnection& connection) {
    Reading reading;
    reading.connection = &connection;
    PulseConnection::Lock lock(connection);
    pa_context* c = connection.context();
    if (!connection.await(pa_context_get_source_info_list(c, onSource, &reading)) ||
        !connection.await(pa_context_get_source_output_info_list(c, onSourceOutput, &reading))) {
        return std::nullopt;
    }
    return reading;
}

} // namespace

std::shared_ptr<CaptureStreamMonitor> CaptureStreamMonitor::make() {
    return std::shared_ptr<CaptureStreamMonitor>(new CaptureStreamMonitor());
}

CaptureStreamMonitor::~CaptureStreamMonitor() {
    stop();
}

std::vector<CaptureStreamMonitor::Owner>
CaptureStreamMonitor::select(const std::vector<RawStream>& streams,
                             const std::vector<std::uint32_t>& monitorSources, pid_t ownPid) {
    std::vector<Owner> owners;
    for (const auto& stream : streams) {
        bool monitor =
            std::find(monitorSources.begin(), monitorSources.end(), stream.source) != monitorSources.end();
        // Our own streams: this process, or a helper of ours (every client of ours is named "Kavely ...").
        bool ours =
            (ownPid > 0 && stream.owner.pid == ownPid) || stream.owner.applicationName.starts_with("Kavely");
        if (!monitor && !ours && !stream.corked && !stream.peakDetect && !stream.serverModule) {
            owners.push_back(stream.owner);
        }
    }
    return owners;
}

bool CaptureStreamMonitor::start(std::function<void(const std::vector<Owner>&)> onChange) {
    stop();
    auto connection = PulseConnection::connect("Kavely stream watcher");
    if (!connection) {
        return false;
    }
    auto reading = readServer(*connection);
    if (!reading) {
        return false;
    }
    {
        PulseConnection::Lock lock(*connection);
        pa_context_set_subscribe_callback(connection->context(), onEvent, this);
        auto mask = static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT |
                                                        PA_SUBSCRIPTION_MASK_SOURCE);
        if (!connection->await(
                pa_context_subscribe(connection->context(), mask, onSubscribed, connection.get()))) {
            pa_context_set_subscribe_callback(connection->context(), nullptr, nullptr);
            return false;
        }
    }
    {
        std::lock_guard lock(mutex_);
        onChange_ = std::move(onChange);
        current_ = select(reading->streams, reading->monitorSources, getpid());
        connection_ = std::shared_ptr<PulseConnection>(std::move(connection));
    }
    // A stream that came or went between the first read and the subscription sent its event to nobody:
    // read once more (a reading equal to the first reports nothing).
    notify();
    return true;
}

void CaptureStreamMonitor::stop() {
    std::shared_ptr<PulseConnection> connection;
    {
        std::lock_guard lock(mutex_);
        connection = std::move(connection_);
        onChange_ = nullptr;
    }
    if (connection) {
        PulseConnection::Lock lock(*connection);
        pa_context_set_subscribe_callback(connection->context(), nullptr, nullptr);
    }
    // No event can start a read now; wait for one in progress, so that no onChange comes after stop().
    // From inside onChange (the reader's own thread) the join returns at once.
    Task reader;
    {
        std::lock_guard lock(mutex_);
        reader = std::exchange(reader_, {});
    }
    reader.cancelAndJoin();
    // The connection ends here, outside mutex_.
}

std::vector<CaptureStreamMonitor::Owner> CaptureStreamMonitor::current() const {
    std::lock_guard lock(mutex_);
    return current_;
}

void CaptureStreamMonitor::notify() {
    std::lock_guard lock(mutex_);
    // One reader at a time; events during a read make it read once more, so a burst costs two reads.
    if (!connection_) {
        return; // not started yet (start reads once more when done) or stopped
    }
    dirty_ = true;
    if (reading_) {
        return;
    }
    reading_ = true;
    // The reader holds no reference: stop(), which the destructor calls, waits for it, so the monitor
    // outlives it, and dropping the last reference always ends the reports.
    reader_ = Task::run([this] { readLoop(); });
}

void CaptureStreamMonitor::readLoop() {
    for (;;) {
        std::shared_ptr<PulseConnection> connection;
        {
            std::lock_guard lock(mutex_);
            if (!dirty_ || !connection_ || Task::isCurrentCancelled()) {
                reading_ = false;
                return;
            }
            dirty_ = false;
            connection = connection_;
        }
        // Not on the loop thread that delivered the event: the reads wait for that thread to answer.
        auto reading = readServer(*connection);
        if (!reading) {
            continue; // a broken connection reads nothing; the next event (or none) decides
        }
        auto owners = select(reading->streams, reading->monitorSources, getpid());
        std::function<void(const std::vector<Owner>&)> onChange;
        {
            std::lock_guard lock(mutex_);
            if (owners == current_ || connection_ != connection) {
                continue;
            }
            current_ = owners;
            onChange = onChange_;
        }
        if (onChange) {
            onChange(owners);
        }
    }
}

} // namespace kavelo
