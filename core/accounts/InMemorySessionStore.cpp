#include "core/accounts/InMemorySessionStore.h"

namespace kavelo {

InMemorySessionStore::InMemorySessionStore(std::optional<AuthSession> session)
    : session_(std::move(session)) {}

std::optional<AuthSession> InMemorySessionStore::load() {
    std::lock_guard lock(mutex_);
    return session_;
}

void InMemorySessionStore::save(const AuthSession& session) {
    std::lock_guard lock(mutex_);
    session_ = session;
}

void InMemorySessionStore::clear() {
    std::lock_guard lock(mutex_);
    session_.reset();
}

} // namespace kavelo
