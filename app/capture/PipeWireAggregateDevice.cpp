#include "app/capture/PipeWireAggregateDevice.h"

#include "app/capture/CycleRing.h"

#include <pipewire/extensions/metadata.h>
#include <pipewire/filter.h>
#include <pipewire/pipewire.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <stdexcept>

namespace kavelo {

namespace {

void ensureInitialised() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

std::string property(const spa_dict* props, const char* key) {
    const char* value = props ? spa_dict_lookup(props, key) : nullptr;
    return value ? value : "";
}

// The "name" of a metadata value such as {"name":"alsa_output.pci-0000_00_1f.3.analog-stereo"}.
std::string nameFromJson(const char* value) {
    if (value == nullptr) {
        return "";
    }
    std::string text(value);
    auto key = text.find("\"name\"");
    if (key == std::string::npos) {
        return "";
    }
    auto open = text.find('"', text.find(':', key) + 1);
    auto close = open == std::string::npos ? open : text.find('"', open + 1);
    return close == std::string::npos ? "" : text.substr(open + 1, close - open - 1);
}

struct NodeInfo {
    std::string name;
    std::string mediaClass;
};
struct PortInfo {
    std::uint32_t node = 0;
    bool output = false;
    bool monitor = false;
    std::string channel;
    std::string name;
};

// Seconds of audio the ring between the real-time thread and the worker holds: the worker encodes and
// writes chunks, and a disk that stalls for a second or two must not cost a single cycle.
constexpr std::size_t ringSeconds = 4;
constexpr std::size_t ringMaxCycles = 8192;
constexpr std::uint32_t maxFramesPerCycle = 8192;

} // namespace

struct PipeWireAggregateDevice::Graph {
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_registry* registry = nullptr;
    pw_metadata* metadata = nullptr;
    pw_filter* filter = nullptr;
    spa_hook coreListener{}, registryListener{}, metadataListener{}, filterListener{};
    std::vector<void*> ports; // our filter's port data
    std::vector<pw_proxy*> links;

    // Loop thread (and the control queue with the loop lock held).
    std::map<std::uint32_t, NodeInfo> nodes;
    std::map<std::uint32_t, PortInfo> portsSeen;
    std::uint32_t metadataId = SPA_ID_INVALID;
    std::string defaultSink, defaultSource;
    int pendingSeq = -1;
    bool synced = false;
    std::string error;
    bool built = false; // defaults reported as changes only after the build
    PipeWireAggregateDevice* owner = nullptr;

    // The ring between the real-time thread and the worker; made before the filter connects.
    std::unique_ptr<CycleRing> ring;
    std::atomic<bool> accepting{false}; // the real-time thread may write cycles
    std::atomic<bool> stopping{false};  // the worker delivers what is left and ends
    std::atomic<bool> abandoned{false}; // the worker ends at once, its handler's owner may be gone
    std::counting_semaphore<1 << 20> ready{0};

    ~Graph() {
        if (loop != nullptr) {
            pw_thread_loop_stop(loop);
        }
        // Our hooks leave their objects' lists before the objects go, so that no destroy event reaches
        // a half-destroyed graph and no list keeps a pointer into it.
        for (auto* hook : {&filterListener, &metadataListener, &registryListener, &coreListener}) {
            spa_hook_remove(hook);
        }
        for (auto* link : links) {
            pw_proxy_destroy(link);
        }
        if (filter != nullptr) {
            pw_filter_destroy(filter);
        }
        if (metadata != nullptr) {
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(metadata));
        }
        if (registry != nullptr) {
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
        }
        if (core != nullptr) {
            pw_core_disconnect(core);
        }
        if (context != nullptr) {
            pw_context_destroy(context);
        }
        if (loop != nullptr) {
            pw_thread_loop_destroy(loop);
        }
    }

    // With the loop lock held: waits until the server has handled everything sent so far.
    bool roundtrip() {
        synced = false;
        pendingSeq = pw_core_sync(core, PW_ID_CORE, 0);
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        while (!synced && error.empty()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            pw_thread_loop_timed_wait(loop, 1);
        }
        return synced;
    }

    void notifyDefaultsChanged() {
        if (!built || owner == nullptr) {
            return;
        }
        std::function<void()> listener;
        {
            std::lock_guard lock(owner->mutex_);
            listener = owner->listener_;
        }
        if (listener) {
            listener();
        }
    }
};

namespace {

using Graph = PipeWireAggregateDevice::Graph;

void onCoreDone(void* data, std::uint32_t id, int seq) {
    auto* g = static_cast<Graph*>(data);
    if (id == PW_ID_CORE && seq == g->pendingSeq) {
        g->synced = true;
        pw_thread_loop_signal(g->loop, false);
    }
}

void onCoreError(void* data, std::uint32_t id, int, int res, const char* message) {
    auto* g = static_cast<Graph*>(data);
    if (id == PW_ID_CORE) {
        g->error = std::string(message ? message : "core error") + " (" + spa_strerror(res) + ")";
        pw_thread_loop_signal(g->loop, false);
    }
}

const pw_core_events coreEvents = [] {
    pw_core_events e{};
    e.version = PW_VERSION_CORE_EVENTS;
    e.done = onCoreDone;
    e.error = onCoreError;
    return e;
}();

int onMetadataProperty(void* data, std::uint32_t subject, const char* key, const char*, const char* value) {
    auto* g = static_cast<Graph*>(data);
    if (subject != PW_ID_CORE || key == nullptr) {
        return 0;
    }
    std::string k(key);
    if (k == "default.audio.sink" || k == "default.audio.source") {
        auto name = nameFromJson(value);
        auto& field = k == "default.audio.sink" ? g->defaultSink : g->defaultSource;
        if (field != name) {
            field = name;
            g->notifyDefaultsChanged();
        }
    }
    return 0;
}

const pw_metadata_events metadataEvents = [] {
    pw_metadata_events e{};
    e.version = PW_VERSION_METADATA_EVENTS;
    e.property = onMetadataProperty;
    return e;
}();

void onGlobal(void* data, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
              const spa_dict* props) {
    auto* g = static_cast<Graph*>(data);
    if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
        g->nodes[id] = {property(props, PW_KEY_NODE_NAME), property(props, PW_KEY_MEDIA_CLASS)};
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Port) == 0) {
        PortInfo port;
        port.node =
            static_cast<std::uint32_t>(std::strtoul(property(props, PW_KEY_NODE_ID).c_str(), nullptr, 10));
        port.output = property(props, PW_KEY_PORT_DIRECTION) == "out";
        port.monitor = property(props, PW_KEY_PORT_MONITOR) == "true";
        port.channel = property(props, PW_KEY_AUDIO_CHANNEL);
        port.name = property(props, PW_KEY_PORT_NAME);
        g->portsSeen[id] = port;
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0 &&
               property(props, "metadata.name") == "default" && g->metadata == nullptr) {
        g->metadataId = id;
        g->metadata = static_cast<pw_metadata*>(
            pw_registry_bind(g->registry, id, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA, 0));
        if (g->metadata != nullptr) {
            pw_metadata_add_listener(g->metadata, &g->metadataListener, &metadataEvents, g);
        }
    }
}

void onGlobalRemove(void* data, std::uint32_t id) {
    auto* g = static_cast<Graph*>(data);
    g->nodes.erase(id);
    g->portsSeen.erase(id);
}

const pw_registry_events registryEvents = [] {
    pw_registry_events e{};
    e.version = PW_VERSION_REGISTRY_EVENTS;
    e.global = onGlobal;
    e.global_remove = onGlobalRemove;
    return e;
}();

// The real-time thread: copy, publish, wake. No locks, no allocation, no logging.
void onProcess(void* data, spa_io_position* position) {
    auto* g = static_cast<Graph*>(data);
    if (position == nullptr || !g->accepting.load(std::memory_order_acquire)) {
        return;
    }
    const auto frames = std::min(static_cast<std::uint32_t>(position->clock.duration), maxFramesPerCycle);
    float* target = g->ring->reserve(frames);
    if (target == nullptr) {
        return; // the worker is seconds behind: the ring counted the lost cycle
    }
    std::uint64_t present = 0;
    for (std::size_t i = 0; i < g->ports.size(); ++i) {
        auto* in = static_cast<const float*>(pw_filter_get_dsp_buffer(g->ports[i], frames));
        if (in != nullptr) {
            std::memcpy(target + i * frames, in, frames * sizeof(float));
            present |= std::uint64_t{1} << i;
        }
    }
    g->ring->commit(frames, position->clock.rate.denom, present);
    g->ready.release();
}

const pw_filter_events filterEvents = [] {
    pw_filter_events e{};
    e.version = PW_VERSION_FILTER_EVENTS;
    e.process = onProcess;
    return e;
}();

std::unique_ptr<Graph> connectGraph() {
    ensureInitialised();
    auto g = std::make_unique<Graph>();
    g->loop = pw_thread_loop_new("kavely-capture", nullptr);
    if (g->loop == nullptr) {
        throw std::runtime_error("pw_thread_loop_new failed");
    }
    g->context = pw_context_new(pw_thread_loop_get_loop(g->loop), nullptr, 0);
    if (g->context == nullptr || pw_thread_loop_start(g->loop) < 0) {
        throw std::runtime_error("pw_context_new failed");
    }
    pw_thread_loop_lock(g->loop);
    g->core = pw_context_connect(g->context, nullptr, 0);
    if (g->core == nullptr) {
        pw_thread_loop_unlock(g->loop);
        throw std::runtime_error("no PipeWire server");
    }
    pw_core_add_listener(g->core, &g->coreListener, &coreEvents, g.get());
    g->registry = pw_core_get_registry(g->core, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(g->registry, &g->registryListener, &registryEvents, g.get());
    // The first round brings the globals; the second the metadata's properties.
    bool ok = g->roundtrip() && g->roundtrip();
    pw_thread_loop_unlock(g->loop);
    if (!ok) {
        throw std::runtime_error("PipeWire did not answer: " + g->error);
    }
    return g;
}

std::string portName(std::size_t index, std::size_t microphonePorts) {
    return (index < microphonePorts ? "mic_" : "system_") + std::to_string(index);
}

std::vector<std::uint32_t> portsOf(const Graph& g, std::uint32_t node, bool monitor) {
    std::vector<std::uint32_t> ids;
    for (const auto& [id, port] : g.portsSeen) {
        if (port.node == node && port.output && port.monitor == monitor) {
            ids.push_back(id);
        }
    }
    return ids;
}

std::optional<std::uint32_t> nodeNamed(const Graph& g, const std::string& name,
                                       const std::string& classPrefix) {
    for (const auto& [id, node] : g.nodes) {
        if (!name.empty() && node.name == name && node.mediaClass.rfind(classPrefix, 0) == 0) {
            return id;
        }
    }
    return std::nullopt;
}

} // namespace

PipeWireAggregateDevice::PipeWireAggregateDevice() = default;

PipeWireAggregateDevice::~PipeWireAggregateDevice() {
    teardown();
}

bool PipeWireAggregateDevice::serverAnswers() {
    try {
        return connectGraph() != nullptr;
    } catch (const std::exception&) {
        return false;
    }
}

bool PipeWireAggregateDevice::canCaptureDefaultOutput() {
    try {
        auto g = connectGraph();
        pw_thread_loop_lock(g->loop);
        auto sink = nodeNamed(*g, g->defaultSink, "Audio/Sink");
        bool ok = sink && !portsOf(*g, *sink, true).empty();
        pw_thread_loop_unlock(g->loop);
        return ok;
    } catch (const std::exception&) {
        return false;
    }
}

AggregateDeviceInfo PipeWireAggregateDevice::build(const std::optional<std::string>& preferredMicrophone) {
    teardown();
    auto g = connectGraph();
    g->owner = this;
    pw_thread_loop_lock(g->loop);
    struct Unlock {
        pw_thread_loop* loop;
        ~Unlock() { pw_thread_loop_unlock(loop); }
    } unlock{g->loop};

    std::optional<std::uint32_t> mic;
    if (preferredMicrophone) {
        mic = nodeNamed(*g, *preferredMicrophone, "Audio/Source");
    }
    if (!mic) {
        mic = nodeNamed(*g, g->defaultSource, "Audio/Source");
    }
    if (!mic) {
        throw std::runtime_error(
            "PipeWire has no default input: choose a microphone in the sound settings or pavucontrol");
    }
    auto micPorts = portsOf(*g, *mic, false);
    if (micPorts.empty()) {
        throw std::runtime_error("microphone has no input channels");
    }
    auto sink = nodeNamed(*g, g->defaultSink, "Audio/Sink");
    std::vector<std::uint32_t> sysPorts;
    if (sink) {
        sysPorts = portsOf(*g, *sink, true);
    }

    // The graph is asked for 48 kHz and kept there while we record: our ports take the graph's own
    // rate, and a switch to another rate in the middle of a meeting (a player that wants 44.1 kHz) would
    // cost cycles until the next rebuild. We ask for 100 ms cycles: a recorder needs no lower latency, and
    // the graph (up to its largest quantum, or what another client asks) then wakes us far less often.
    auto* props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture",
                                    PW_KEY_MEDIA_ROLE, "Production", PW_KEY_NODE_NAME, "kavely.capture",
                                    PW_KEY_NODE_DESCRIPTION, "Kavely Capture", PW_KEY_NODE_RATE, "1/48000",
                                    PW_KEY_NODE_LOCK_RATE, "true", PW_KEY_NODE_LATENCY, "4800/48000", nullptr);
    g->filter = pw_filter_new(g->core, "kavely.capture", props);
    if (g->filter == nullptr) {
        throw std::runtime_error("pw_filter_new failed");
    }
    pw_filter_add_listener(g->filter, &g->filterListener, &filterEvents, g.get());
    const std::size_t total = micPorts.size() + sysPorts.size();
    if (total > CycleRing::maxChannels) {
        throw std::runtime_error("too many channels: " + std::to_string(total));
    }
    for (std::size_t i = 0; i < total; ++i) {
        std::string name = portName(i, micPorts.size());
        auto* portProps = pw_properties_new(PW_KEY_FORMAT_DSP, "32 bit float mono audio", PW_KEY_PORT_NAME,
                                            name.c_str(), nullptr);
        void* port = pw_filter_add_port(g->filter, PW_DIRECTION_INPUT, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0,
                                        portProps, nullptr, 0);
        if (port == nullptr) {
            throw std::runtime_error("pw_filter_add_port failed");
        }
        g->ports.push_back(port);
    }
    // The ring is made before the real-time thread can see it.
    g->ring = std::make_unique<CycleRing>(total, ringSeconds * 48000, ringMaxCycles);
    if (pw_filter_connect(g->filter, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0) < 0) {
        throw std::runtime_error("pw_filter_connect failed");
    }
    // Our ports appear in the registry once the server has made them; they are matched by name, since
    // the server numbers them in no promised order.
    const std::size_t unfound = SIZE_MAX;
    std::vector<std::size_t> ourPorts(total, unfound);
    std::uint32_t ourNode = SPA_ID_INVALID;
    auto allFound = [&] { return std::find(ourPorts.begin(), ourPorts.end(), unfound) == ourPorts.end(); };
    for (int round = 0; round < 20 && !allFound(); ++round) {
        if (!g->roundtrip()) {
            throw std::runtime_error("PipeWire did not answer: " + g->error);
        }
        ourNode = pw_filter_get_node_id(g->filter);
        for (const auto& [id, port] : g->portsSeen) {
            if (port.node != ourNode || port.output) {
                continue;
            }
            for (std::size_t i = 0; i < total; ++i) {
                if (port.name == portName(i, micPorts.size())) {
                    ourPorts[i] = id;
                }
            }
        }
    }
    if (!allFound()) {
        throw std::runtime_error("capture ports did not appear");
    }
    std::vector<std::uint32_t> sources = micPorts;
    sources.insert(sources.end(), sysPorts.begin(), sysPorts.end());
    for (std::size_t i = 0; i < total; ++i) {
        auto fromNode = std::to_string(g->portsSeen[sources[i]].node);
        auto from = std::to_string(sources[i]);
        auto toNode = std::to_string(ourNode);
        auto to = std::to_string(ourPorts[i]);
        auto* linkProps =
            pw_properties_new(PW_KEY_LINK_OUTPUT_NODE, fromNode.c_str(), PW_KEY_LINK_OUTPUT_PORT,
                              from.c_str(), PW_KEY_LINK_INPUT_NODE, toNode.c_str(), PW_KEY_LINK_INPUT_PORT,
                              to.c_str(), PW_KEY_OBJECT_LINGER, "false", nullptr);
        auto* link = static_cast<pw_proxy*>(pw_core_create_object(
            g->core, "link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK, &linkProps->dict, 0));
        pw_properties_free(linkProps);
        if (link == nullptr) {
            throw std::runtime_error("link-factory failed");
        }
        g->links.push_back(link);
    }
    if (!g->roundtrip()) {
        throw std::runtime_error("links failed: " + g->error);
    }
    g->built = true;
    AggregateDeviceInfo info;
    info.microphoneChannels = int(micPorts.size());
    info.totalChannels = int(total);
    info.sampleRate = 48000.0;
    info.systemFormatChannels = int(sysPorts.size());
    graph_ = std::move(g);
    return info;
}

void PipeWireAggregateDevice::startIO(IOHandler handler) {
    if (!graph_) {
        throw std::runtime_error("PipeWire capture: no graph to start");
    }
    stopWorker();
    graph_->stopping = false;
    // The worker shares the graph: should a handler tear this device down from the worker itself, the
    // ring it is reading stays alive until the worker has left it.
    worker_ = std::thread([g = graph_, handler = std::move(handler)] {
        IOBufferList list;
        list.buffers.resize(g->ports.size());
        CycleRing::Cycle cycle;
        for (;;) {
            g->ready.acquire();
            // What the real-time thread published before a stop is still delivered: it is the tail of the
            // recording.
            while (g->ring->peek(cycle)) {
                // A cycle at another rate than the graph was built for would play at the wrong pitch: it
                // is dropped, and the watchdog's stall rebuilds the graph.
                if (cycle.rate == 48000) {
                    for (std::size_t i = 0; i < list.buffers.size(); ++i) {
                        list.buffers[i] = {1, cycle.has(i) ? cycle.samples + i * cycle.frames : nullptr,
                                           cycle.frames * sizeof(float)};
                    }
                    handler(list);
                }
                g->ring->release();
                if (g->abandoned.load()) {
                    return; // torn down from inside the handler: its owner may be gone
                }
            }
            if (g->stopping.load()) {
                return;
            }
        }
    });
    graph_->accepting = true;
}

void PipeWireAggregateDevice::stopWorker() {
    if (!graph_) {
        return;
    }
    graph_->accepting = false;
    if (!worker_.joinable()) {
        return;
    }
    if (worker_.get_id() == std::this_thread::get_id()) {
        graph_->abandoned = true;
        worker_.detach();
        return;
    }
    graph_->stopping = true;
    graph_->ready.release();
    worker_.join();
}

void PipeWireAggregateDevice::teardown() {
    if (!graph_) {
        return;
    }
    stopWorker();
    droppedBefore_ += graph_->ring ? graph_->ring->droppedCycles() : 0;
    {
        // The loop thread may outlive this device (a worker that tore it down holds the graph): it must not
        // report to us any more.
        pw_thread_loop_lock(graph_->loop);
        graph_->owner = nullptr;
        pw_thread_loop_unlock(graph_->loop);
    }
    graph_.reset(); // the last holder stops the loop thread first, then destroys links, filter and connection
}

std::uint64_t PipeWireAggregateDevice::droppedCycles() const {
    return droppedBefore_ + (graph_ && graph_->ring ? graph_->ring->droppedCycles() : 0);
}

void PipeWireAggregateDevice::setDefaultDeviceListener(std::function<void()> listener) {
    std::lock_guard lock(mutex_);
    listener_ = std::move(listener);
}

} // namespace kavelo
