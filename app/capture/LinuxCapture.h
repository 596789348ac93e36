#pragma once

#include "core/recording/NativeRecorder.h"
#include "core/support/Clock.h"
#include "core/support/CoreLogger.h"
#include "core/transport/UploadWorker.h"

#include <memory>

namespace kavelo {

// The one entry of the composition root into Linux capture.
//
// Makes the recorder over the real audio server: the PipeWire aggregate path when a PipeWire server
// answers (and KAVELO_DISABLE_AUDIO_TAP is not "1"), the PulseAudio-API path otherwise and as its fallback.
// uploader receives every chunk; logger gets the recorder's lines; clock times health ticks, restarts and
// waits (SystemClock in the application). The recorder reads the process environment at each start.
std::shared_ptr<NativeRecorder> makeLinuxNativeRecorder(std::shared_ptr<UploadWorker> uploader,
                                                        std::shared_ptr<CoreLogger> logger,
                                                        std::shared_ptr<Clock> clock);

} // namespace kavelo
