// A level meter as mixers open one: a recording stream with peak detection on the source named by the
// first argument. Prints "ready" once the stream records, then runs until killed. Its application
// properties come from PULSE_PROP, as with any libpulse client.
#include <pulse/pulseaudio.h>

#include <cstdio>
#include <cstdlib>

namespace {

const char* sourceName = nullptr;

void onRead(pa_stream* stream, size_t, void*) {
    const void* data = nullptr;
    size_t length = 0;
    while (pa_stream_readable_size(stream) > 0 && pa_stream_peek(stream, &data, &length) == 0 && length > 0) {
        pa_stream_drop(stream);
    }
}

void onStreamState(pa_stream* stream, void*) {
    switch (pa_stream_get_state(stream)) {
    case PA_STREAM_READY:
        std::printf("ready\n");
        std::fflush(stdout);
        break;
    case PA_STREAM_FAILED:
        std::fprintf(stderr, "stream failed\n");
        std::exit(2);
    default:
        break;
    }
}

void onContextState(pa_context* context, void*) {
    switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY: {
        pa_sample_spec format{PA_SAMPLE_FLOAT32LE, 25, 1};
        auto* stream = pa_stream_new(context, "Peak detect", &format, nullptr);
        pa_stream_set_state_callback(stream, onStreamState, nullptr);
        pa_stream_set_read_callback(stream, onRead, nullptr);
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.fragsize = sizeof(float);
        auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_PEAK_DETECT | PA_STREAM_ADJUST_LATENCY);
        if (pa_stream_connect_record(stream, sourceName, &attr, flags) < 0) {
            std::fprintf(stderr, "connect_record failed\n");
            std::exit(2);
        }
        break;
    }
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED:
        std::fprintf(stderr, "no audio server\n");
        std::exit(2);
    default:
        break;
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s SOURCE\n", argv[0]);
        return 1;
    }
    sourceName = argv[1];
    auto* loop = pa_mainloop_new();
    auto* context = pa_context_new(pa_mainloop_get_api(loop), "level meter");
    pa_context_set_state_callback(context, onContextState, nullptr);
    if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        std::fprintf(stderr, "no audio server\n");
        return 2;
    }
    int result = 0;
    pa_mainloop_run(loop, &result);
    return result;
}
