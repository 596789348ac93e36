#pragma once

#include "core/accounts/SessionManager.h"
#include "core/support/Clock.h"
#include "core/support/CoreLogger.h"

#include <memory>

namespace kavelo {

// Keeps the session usable across sleep, network loss and long idle: an access token that expires within
// half a minute is refreshed. Only the server's refusal ends the session for the user; being offline or a
// server error keeps it, and the next occasion (wake, network back, window shown) tries again.
class SessionHealthCheck {
  public:
    enum class Outcome { noSession, stillValid, refreshed, rejected, retryLater };

    SessionHealthCheck(std::shared_ptr<SessionManager> sessions, std::shared_ptr<Clock> clock,
                       std::shared_ptr<CoreLogger> logger);

    // Blocks on the network when a refresh is due: call it off the main thread.
    Outcome run();

  private:
    const std::shared_ptr<SessionManager> sessions_;
    const std::shared_ptr<Clock> clock_;
    const std::shared_ptr<CoreLogger> logger_;
};

} // namespace kavelo
