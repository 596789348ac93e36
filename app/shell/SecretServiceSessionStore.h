#pragma once

#include "core/accounts/SessionStore.h"
#include "core/support/CoreLogger.h"

#include <memory>
#include <optional>
#include <string>

namespace kavelo {

// The session item in the user's Secret Service (gnome-keyring, KWallet's bridge, KeePassXC): one item
// with the attributes service and account, holding the session as JSON with sorted keys. The item is
// written to the default collection, the one unlocked with the user's login.
//
// Failures are this store's own business: each one is logged (never with a token) and the session then
// lives in memory only. Where no Secret Service answers, that is every call; the user signs in again
// after a restart.
//
// Calls block on D-Bus and may come from any thread; the object has no mutable state.
class SecretServiceSessionStore final : public SessionStore {
  public:
    // The application uses service "com.kavely.linux.session" (".mock" appended in mock mode) and account
    // "auth-session". The logger is the store's own, category "keychain". A session found only under
    // legacyService (the name that earlier versions stored it under) is moved to service on loading, and
    // clearing removes both, so that a sign-out never finds the old item come back.
    SecretServiceSessionStore(std::string service, std::string account, std::shared_ptr<CoreLogger> logger,
                              std::string legacyService = {});

    [[nodiscard]] const std::string& service() const { return service_; }
    [[nodiscard]] const std::string& account() const { return account_; }

    // Drops this process's connection to the Secret Service; the next call connects anew. For shutdown,
    // and for tests that stop the session bus they started.
    static void disconnect();

    std::optional<AuthSession> load() override;
    void save(const AuthSession& session) override;
    void clear() override;

  private:
    // The session under one service name; absent for no item, a failure (logged) or an undecodable item.
    std::optional<AuthSession> lookup(const std::string& service);
    void clearItem(const std::string& service);

    const std::string service_;
    const std::string legacyService_;
    const std::string account_;
    const std::shared_ptr<CoreLogger> logger_;
};

} // namespace kavelo
