#include "app/shell/SessionHealthCheck.h"

#include "core/accounts/AuthError.h"

namespace kavelo {

SessionHealthCheck::SessionHealthCheck(std::shared_ptr<SessionManager> sessions, std::shared_ptr<Clock> clock,
                                       std::shared_ptr<CoreLogger> logger)
    : sessions_(std::move(sessions)), clock_(std::move(clock)), logger_(std::move(logger)) {}

SessionHealthCheck::Outcome SessionHealthCheck::run() {
    const auto session = sessions_->session();
    if (!session) {
        return Outcome::noSession;
    }
    if (!session->isExpired(clock_->now())) {
        return Outcome::stillValid;
    }
    try {
        sessions_->refreshSession();
        return Outcome::refreshed;
    } catch (const AuthError& error) {
        if (error.kind() == AuthError::Kind::refreshRejected) {
            logger_->error("session refresh door server afgewezen — herinloggen vereist");
            return Outcome::rejected;
        }
    } catch (const std::exception&) {
    }
    logger_->warn("session refresh tijdelijk mislukt (offline/5xx) — sessie blijft staan, volgende trigger "
                  "probeert opnieuw");
    return Outcome::retryLater;
}

} // namespace kavelo
