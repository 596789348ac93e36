#pragma once

#include "core/backend/HTTPClient.h"
#include "core/workspace/UpdateBackend.h"
#include "core/workspace/UpdateDocument.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kavelo {

// Reads the update policy file by a plain GET: no headers, no session, so it works before sign-in.
//
// The policy is fetched afresh on every call; the release notes come from the last file read, so one policy
// check feeds the notes without a second request. Calls may come from any thread; the lock guards only the
// last file and is never held across the request.
class StaticJSONUpdateBackend final : public UpdateBackend {
  public:
    static constexpr double kTimeoutSeconds = 15;

    StaticJSONUpdateBackend(std::string url, std::shared_ptr<HTTPClient> http);

    // Throw APIError: http for a status outside 200..299, decoding for a file that UpdateDocument refuses
    // (an over-long answer is cut off while downloading and fails as network), network, timeout, cancelled.
    UpdatePolicy fetchPolicy() override;
    std::vector<ReleaseNote> fetchReleaseNotes() override;

    [[nodiscard]] const std::string& url() const { return url_; }

  private:
    UpdateDocument fetchPayload();

    const std::string url_;
    const std::shared_ptr<HTTPClient> http_;
    std::mutex mutex_;
    std::optional<UpdateDocument> cached_; // guarded by mutex_
};

} // namespace kavelo
