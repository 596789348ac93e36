#pragma once

#include "core/workspace/UpdateBackend.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kavelo {

// The update host of mock mode: the running version is the latest and the oldest supported, and one
// release note describes it, in the language the user reads ("nl" or "en", asked at each call). A knob
// lets a demo or a test put another policy in place, or make the next calls fail as an offline host does.
class MockUpdateBackend final : public UpdateBackend {
  public:
    using LanguageGetter = std::function<std::string()>;
    static constexpr const char* downloadURL = "https://kavely-mock.invalid/download/linux";

    explicit MockUpdateBackend(std::string currentVersion, LanguageGetter language = {});

    UpdatePolicy fetchPolicy() override;
    std::vector<ReleaseNote> fetchReleaseNotes() override;

    void setPolicy(UpdatePolicy policy);
    // The next n calls throw APIError::network before calls work again.
    void setFailuresBeforeSuccess(int n);

  private:
    void failIfAsked();

    const std::string currentVersion_;
    const LanguageGetter language_;
    std::mutex mutex_;
    UpdatePolicy policy_;  // guarded by mutex_
    int failuresLeft_ = 0; // guarded by mutex_
};

} // namespace kavelo
