#pragma once

#include "core/accounts/SessionStore.h"

#include <mutex>

namespace kavelo {

// The store of mock mode and of tests: the session lives as long as the object.
class InMemorySessionStore final : public SessionStore {
  public:
    explicit InMemorySessionStore(std::optional<AuthSession> session = std::nullopt);

    std::optional<AuthSession> load() override;
    void save(const AuthSession& session) override;
    void clear() override;

  private:
    std::mutex mutex_;
    std::optional<AuthSession> session_; // guarded by mutex_
};

} // namespace kavelo
