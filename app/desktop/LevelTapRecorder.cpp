#include "app/desktop/LevelTapRecorder.h"

namespace kavelo {

LevelTapRecorder::LevelTapRecorder(std::shared_ptr<NativeRecorder> inner, LevelTap tap)
    : ForwardingRecorder(std::move(inner)), tap_(std::move(tap)) {}

void LevelTapRecorder::setEventHandlers(RecorderEventHandlers handlers) {
    handlers.onLevel = [tap = tap_, next = std::move(handlers.onLevel)](double microphone, double system) {
        tap(microphone, system);
        if (next) {
            next(microphone, system);
        }
    };
    inner_->setEventHandlers(std::move(handlers));
}

} // namespace kavelo
