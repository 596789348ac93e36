#include "app/capture/LinuxCapture.h"

#include "app/capture/LinuxCaptureBackend.h"
#include "app/capture/LinuxNativeRecorder.h"
#include "app/capture/PulseAudioDevices.h"

namespace kavelo {

std::shared_ptr<NativeRecorder> makeLinuxNativeRecorder(std::shared_ptr<UploadWorker> uploader,
                                                        std::shared_ptr<CoreLogger> logger,
                                                        std::shared_ptr<Clock> clock) {
    LinuxNativeRecorder::Dependencies deps;
    deps.uploader = std::move(uploader);
    deps.logger = std::move(logger);
    deps.backend = std::make_shared<LinuxCaptureBackend>(clock);
    deps.devices = std::make_shared<PulseAudioDevices>();
    deps.clock = std::move(clock);
    return LinuxNativeRecorder::make(std::move(deps));
}

} // namespace kavelo
