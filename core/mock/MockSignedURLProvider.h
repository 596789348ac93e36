#pragma once

#include "core/transport/SignedURLProvider.h"

#include <mutex>
#include <string>
#include <vector>

namespace kavelo {

// Signed URLs of mock mode: one URL per asked sequence, on the mock storage host, which
// MockUploadHTTPClient answers. A knob lets the next calls fail the way the live function does.
class MockSignedURLProvider final : public SignedURLProvider {
  public:
    // Every mock signed URL starts with this; its host is what MockUploadHTTPClient recognises.
    static constexpr const char* storageBase = "https://mock-storage.kavely.test/upload/";

    std::vector<SignedURL> fetchSignedURLs(const std::string& recordingId, const std::string& recordingSecret,
                                           int startSequence, int count) override;

    // The next n calls throw APIError::http(failStatus) before calls work again.
    void setFailuresBeforeSuccess(int n);
    void setFailStatus(int status);
    [[nodiscard]] int failuresBeforeSuccess() const;

  private:
    mutable std::mutex mutex_;
    int failuresBeforeSuccess_ = 0; // guarded by mutex_
    int failStatus_ = 500;          // guarded by mutex_
};

} // namespace kavelo
