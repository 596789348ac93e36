#pragma once

#include "core/recording/ForwardingRecorder.h"

#include <functional>
#include <memory>

namespace kavelo {

// Passes every call to the real recorder and hands the level reports of a running recording to the
// screens as well as to whoever else listens. The tap runs on the capture thread: it must only copy.
class LevelTapRecorder final : public ForwardingRecorder {
  public:
    using LevelTap = std::function<void(double microphone, double system)>;
    LevelTapRecorder(std::shared_ptr<NativeRecorder> inner, LevelTap tap);

    void setEventHandlers(RecorderEventHandlers handlers) override;

  private:
    const LevelTap tap_;
};

} // namespace kavelo
