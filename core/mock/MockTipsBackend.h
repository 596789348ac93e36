#pragma once

#include "core/workspace/TipsBackend.h"

#include <functional>
#include <mutex>
#include <string>

namespace kavelo {

// The tips of mock mode: four hints about using the program, for a new user ("starter") with one
// meeting, in the language the user reads ("nl" or "en", asked at each call). A knob makes the next calls
// fail as an offline backend does, so the cache road can be shown.
class MockTipsBackend final : public TipsBackend {
  public:
    using LanguageGetter = std::function<std::string()>;

    explicit MockTipsBackend(LanguageGetter language = {});

    TipsResponse fetch() override;

    // The next n calls throw APIError::network before calls work again.
    void setFailuresBeforeSuccess(int n);

  private:
    const LanguageGetter language_;
    std::mutex mutex_;
    int failuresLeft_ = 0; // guarded by mutex_
};

} // namespace kavelo
