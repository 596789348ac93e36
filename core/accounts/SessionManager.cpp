#include "core/accounts/SessionManager.h"

#include "core/accounts/AuthError.h"
#include "core/support/Task.h"

namespace kavelo {

namespace {

// A refresh answer may leave out what the server did not send again; the session we have fills it in.
AuthSession merged(AuthSession fresh, const AuthUser& known) {
    if (fresh.user.id.empty()) {
        fresh.user.id = known.id;
    }
    if (fresh.user.email.empty()) {
        fresh.user.email = known.email;
    }
    if (!fresh.user.workProfile) {
        fresh.user.workProfile = known.workProfile;
    }
    if (!fresh.user.createdAt) {
        fresh.user.createdAt = known.createdAt;
    }
    return fresh;
}

} // namespace

SessionManager::SessionManager(std::shared_ptr<SessionStore> store, std::shared_ptr<Clock> clock)
    : store_(std::move(store)), clock_(std::move(clock)), current_(store_->load()) {}

std::optional<AuthSession> SessionManager::session() const {
    std::lock_guard lock(mutex_);
    return current_;
}

SessionManager::State SessionManager::state() const {
    std::lock_guard lock(mutex_);
    return current_ ? State::signedIn(*current_) : State::signedOut();
}

void SessionManager::setRefresher(Refresher refresher) {
    std::lock_guard lock(mutex_);
    refresher_ = std::move(refresher);
}

SessionManager::ChangeObservers SessionManager::commitLocked(const AuthSession& session,
                                                             std::uint64_t& version) {
    current_ = session;
    version = ++version_;
    return changeObservers_;
}

void SessionManager::persist(std::uint64_t version, std::optional<AuthSession> state) {
    for (;;) {
        if (state) {
            store_->save(*state);
        } else {
            store_->clear();
        }
        std::lock_guard lock(mutex_);
        if (version_ == version) {
            return;
        }
        version = version_;
        state = current_;
    }
}

void SessionManager::notify(const ChangeObservers& observers, const State& state) {
    for (const auto& observer : observers) {
        observer(state);
    }
}

void SessionManager::install(const AuthSession& session) {
    ChangeObservers observers;
    std::uint64_t version = 0;
    {
        std::lock_guard lock(mutex_);
        observers = commitLocked(session, version);
    }
    persist(version, session);
    notify(observers, State::signedIn(session));
}

void SessionManager::signOut() {
    std::vector<std::function<void()>> signOutObservers;
    ChangeObservers changeObservers;
    std::uint64_t version = 0;
    {
        std::lock_guard lock(mutex_);
        current_.reset();
        version = ++version_;
        signOutObservers = signOutObservers_;
        changeObservers = changeObservers_;
    }
    persist(version, std::nullopt);
    for (const auto& observer : signOutObservers) {
        observer();
    }
    notify(changeObservers, State::signedOut());
}

void SessionManager::onSignOut(std::function<void()> observer) {
    std::lock_guard lock(mutex_);
    signOutObservers_.push_back(std::move(observer));
}

void SessionManager::onChange(std::function<void(const State&)> observer) {
    std::lock_guard lock(mutex_);
    changeObservers_.push_back(std::move(observer));
}

AuthSession SessionManager::refreshSession() {
    std::shared_ptr<Flight> flight;
    std::shared_ptr<std::promise<AuthSession>> promise;
    Refresher refresher;
    {
        std::lock_guard lock(mutex_);
        if (!current_) {
            throw AuthError::unknown("no session");
        }
        if (refreshInFlight_) {
            flight = refreshInFlight_;
        } else if (!refresher_) {
            return *current_;
        } else {
            // Deciding to join and starting a flight happen under one hold of the lock: that is what
            // keeps it to one refresh at a time.
            promise = std::make_shared<std::promise<AuthSession>>();
            flight = std::make_shared<Flight>(Flight{promise->get_future().share(), current_->refreshToken});
            refresher = refresher_;
            refreshInFlight_ = flight;
        }
    }
    const bool owner = promise != nullptr;

    // The refresh runs on a task of its own, so that a cancelled caller does not cancel it for every
    // caller that joined. The owner awaits it and joins the thread, so nothing outlives the call.
    Task task;
    if (owner) {
        task = Task::run([promise, refresher = std::move(refresher), token = flight->refreshToken] {
            try {
                promise->set_value(refresher(token));
            } catch (...) {
                promise->set_exception(std::current_exception());
            }
        });
    }
    struct FlightEnd {
        SessionManager* self;
        const std::shared_ptr<Flight>& flight;
        const Task& task;
        bool owner;
        ~FlightEnd() {
            if (!owner) {
                return;
            }
            task.join();
            std::lock_guard lock(self->mutex_);
            if (self->refreshInFlight_ == flight) {
                self->refreshInFlight_.reset();
            }
        }
    } end{this, flight, task, owner};

    // Throws the refresher's error to every caller of this flight; the session stays as it is.
    AuthSession fresh = flight->result.get();

    ChangeObservers observers;
    AuthSession result;
    std::uint64_t version = 0;
    {
        std::lock_guard lock(mutex_);
        if (!current_ || current_->refreshToken != flight->refreshToken) {
            // Signed out, or a newer session was installed meanwhile: that one stands.
            return fresh;
        }
        result = merged(std::move(fresh), current_->user);
        observers = commitLocked(result, version);
    }
    persist(version, result);
    notify(observers, State::signedIn(result));
    return result;
}

std::optional<std::string> SessionManager::currentAccessToken() {
    std::optional<AuthSession> session = this->session();
    if (!session) {
        return std::nullopt;
    }
    if (!session->isExpired(clock_->now())) {
        return session->accessToken;
    }
    try {
        return refreshSession().accessToken;
    } catch (...) {
        return session->accessToken;
    }
}

std::optional<std::string> SessionManager::refreshedAccessToken() {
    if (!session()) {
        return std::nullopt;
    }
    try {
        return refreshSession().accessToken;
    } catch (...) {
        return std::nullopt;
    }
}

} // namespace kavelo
