#pragma once

#include "core/recording/ForwardingRecorder.h"

#include <functional>
#include <memory>

namespace kavelo::cli {

// Passes every call to the real recorder and lets the command line see each event before the
// coordinator does, so that it can print chunks and warnings as they happen.
class ObservingRecorder final : public ForwardingRecorder {
  public:
    ObservingRecorder(std::shared_ptr<NativeRecorder> inner, RecorderEventHandlers observers);

    void setEventHandlers(RecorderEventHandlers handlers) override;

  private:
    const RecorderEventHandlers observers_;
};

} // namespace kavelo::cli
