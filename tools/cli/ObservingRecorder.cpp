#include "tools/cli/ObservingRecorder.h"

namespace kavelo::cli {

namespace {
// Calls the observer first, then the coordinator's handler; either may be absent.
template <class Arg>
std::function<void(const Arg&)> both(const std::function<void(const Arg&)>& first,
                                     const std::function<void(const Arg&)>& second) {
    if (!first) {
        return second;
    }
    return [first, second](const Arg& value) {
        first(value);
        if (second) {
            second(value);
        }
    };
}
} // namespace

ObservingRecorder::ObservingRecorder(std::shared_ptr<NativeRecorder> inner, RecorderEventHandlers observers)
    : ForwardingRecorder(std::move(inner)), observers_(std::move(observers)) {}

void ObservingRecorder::setEventHandlers(RecorderEventHandlers handlers) {
    handlers.onAudioChunk = both(observers_.onAudioChunk, handlers.onAudioChunk);
    handlers.onStateChange = both(observers_.onStateChange, handlers.onStateChange);
    handlers.onAudioError = both(observers_.onAudioError, handlers.onAudioError);
    handlers.onNativeUpload = both(observers_.onNativeUpload, handlers.onNativeUpload);
    inner_->setEventHandlers(std::move(handlers));
}

} // namespace kavelo::cli
