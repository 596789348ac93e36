#include "tools/cli/ObservingUploadWorker.h"

namespace kavelo::cli {

ObservingUploadWorker::ObservingUploadWorker(std::shared_ptr<UploadWorker> inner, EventHandler observer,
                                             ChunkObserver chunkObserver)
    : inner_(std::move(inner)), observer_(std::move(observer)), chunkObserver_(std::move(chunkObserver)) {
    // Events before the coordinator installs its handler are still seen.
    inner_->setOnEvent(observer_);
}

void ObservingUploadWorker::setOnEvent(EventHandler handler) {
    inner_->setOnEvent([observer = observer_, handler = std::move(handler)](const NativeUploadEvent& event) {
        if (observer) {
            observer(event);
        }
        if (handler) {
            handler(event);
        }
    });
}

} // namespace kavelo::cli
