#pragma once

#include "core/mock/MockBackend.h"
#include "core/workspace/RecordingStatusProviding.h"

#include <memory>

namespace kavelo {

// The backend's progress in mock mode, read off the mock backend's clock: a finalized recording spends
// transcribeWindow seconds transcribing and generateWindow seconds generating, then counts as delivered to
// the recipients of its finalize request. A recording not yet finalized is still recording.
class MockRecordingStatusProvider final : public RecordingStatusProviding {
  public:
    MockRecordingStatusProvider(std::shared_ptr<MockBackend> backend, double transcribeWindow,
                                double generateWindow);

    std::optional<std::string> resolveMeetingId(const std::string& recordingId) override;
    std::optional<RecordingStatus> fetchStatus(const std::string& meetingId) override;

  private:
    const std::shared_ptr<MockBackend> backend_;
    const double transcribeWindow_;
    const double generateWindow_;
};

} // namespace kavelo
