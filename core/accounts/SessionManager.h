#pragma once

#include "core/accounts/AuthSession.h"
#include "core/accounts/SessionStore.h"
#include "core/backend/AccessTokenProvider.h"
#include "core/support/Clock.h"

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// Holds the session of the one user of the application and is the single source of the access token.
//
// It restores the session from the store at construction, hands out tokens that it refreshes when they
// are about to expire, runs at most one refresh however many callers ask, and tells observers when the
// user changes or leaves. How a refresh is done is the refresher's business (the auth service, set by
// the composition root); a failed refresh never signs the user out here.
//
// Thread-safety: every member may be called from any thread. One mutex guards all fields, never held
// across the store's save and clear (a slow disk would stall every caller that only reads the token);
// persist makes the store end as memory does. Observers and the refresher are called without the lock,
// so they may call back into the manager.
class SessionManager final : public AccessTokenProvider {
  public:
    // Turns a refresh token into a new session; throws on failure. Called on a thread of its own.
    using Refresher = std::function<AuthSession(const std::string& refreshToken)>;

    class State {
      public:
        static State signedIn(AuthSession session) { return State(std::move(session)); }
        static State signedOut() { return State(std::nullopt); }
        [[nodiscard]] bool isSignedIn() const { return session_.has_value(); }
        // The session of the signedIn case; absent when signed out.
        [[nodiscard]] const std::optional<AuthSession>& session() const { return session_; }
        bool operator==(const State&) const = default;

      private:
        explicit State(std::optional<AuthSession> session) : session_(std::move(session)) {}
        std::optional<AuthSession> session_;
    };

    SessionManager(std::shared_ptr<SessionStore> store, std::shared_ptr<Clock> clock);
    SessionManager(const SessionManager&) = delete;
    SessionManager& operator=(const SessionManager&) = delete;

    [[nodiscard]] std::optional<AuthSession> session() const;
    [[nodiscard]] State state() const;

    void setRefresher(Refresher refresher);

    // After every sign-in and every successful refresh: keeps the session, saves it, tells the
    // change observers.
    void install(const AuthSession& session);
    // Forgets the session and clears the store. A refresh under way is neither cancelled nor awaited;
    // it notices on its return and installs nothing.
    void signOut();

    // Observers cannot be removed; they are called in order of registration.
    void onSignOut(std::function<void()> observer);
    void onChange(std::function<void(const State&)> observer);

    // Runs the refresher, or joins the refresh that is already running. Throws AuthError.unknown("no
    // session") when nobody is signed in, and the refresher's own error unchanged. Without a refresher
    // it returns the present session.
    AuthSession refreshSession();

    // The current token, refreshed first when it has expired. A failed refresh yields the old token:
    // the server then decides, and a refusal leads to the clients' one retry.
    std::optional<std::string> currentAccessToken() override;
    // A forced refresh; absent when nobody is signed in or the refresh failed.
    std::optional<std::string> refreshedAccessToken() override;

  private:
    struct Flight {
        std::shared_future<AuthSession> result;
        std::string refreshToken; // the token this flight spends
    };
    using ChangeObservers = std::vector<std::function<void(const State&)>>;

    // Sets current_ and counts the change; returns the change observers to call after unlocking. Needs the
    // lock. The caller then persists the change.
    ChangeObservers commitLocked(const AuthSession& session, std::uint64_t& version);
    // Puts state (absent: signed out) in the store, outside the lock. A change made meanwhile by another
    // thread may have reached the store first; then the newest state is written again, so the store ends
    // as current_ does. Throws what the store throws.
    void persist(std::uint64_t version, std::optional<AuthSession> state);
    static void notify(const ChangeObservers& observers, const State& state);

    const std::shared_ptr<SessionStore> store_;
    const std::shared_ptr<Clock> clock_;

    mutable std::mutex mutex_;
    Refresher refresher_;                                 // guarded by mutex_
    std::optional<AuthSession> current_;                  // guarded by mutex_
    std::vector<std::function<void()>> signOutObservers_; // guarded by mutex_
    ChangeObservers changeObservers_;                     // guarded by mutex_
    std::shared_ptr<Flight> refreshInFlight_;             // guarded by mutex_
    std::uint64_t version_ = 0;                           // guarded by mutex_; counts changes of current_
};

} // namespace kavelo
