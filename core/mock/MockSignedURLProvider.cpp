#include "core/mock/MockSignedURLProvider.h"

#include "core/backend/APIError.h"
#include "core/transport/ChunkStore.h"

namespace kavelo {

std::vector<SignedURL> MockSignedURLProvider::fetchSignedURLs(const std::string& recordingId,
                                                              const std::string& /*recordingSecret*/,
                                                              int startSequence, int count) {
    {
        std::lock_guard lock(mutex_);
        if (failuresBeforeSuccess_ >= 1) {
            --failuresBeforeSuccess_;
            throw APIError::http(failStatus_, std::nullopt, "mock url fetch failure");
        }
    }
    std::vector<SignedURL> urls;
    std::string folder = std::string(storageBase) + ChunkStore::safeRecordingId(recordingId) + "/";
    for (int i = 0; i < count; ++i) {
        int sequence = startSequence + i;
        urls.push_back({sequence, folder + std::to_string(sequence)});
    }
    return urls;
}

void MockSignedURLProvider::setFailuresBeforeSuccess(int n) {
    std::lock_guard lock(mutex_);
    failuresBeforeSuccess_ = n;
}

void MockSignedURLProvider::setFailStatus(int status) {
    std::lock_guard lock(mutex_);
    failStatus_ = status;
}

int MockSignedURLProvider::failuresBeforeSuccess() const {
    std::lock_guard lock(mutex_);
    return failuresBeforeSuccess_;
}

} // namespace kavelo
