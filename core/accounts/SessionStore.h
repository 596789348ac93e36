#pragma once

#include "core/accounts/AuthSession.h"

#include <optional>

namespace kavelo {

// The durable copy of the session. No operation reports a failure: a store that cannot keep the session
// says so in its own log and the application goes on with the session in memory. Implementations must
// be short and must not call back into SessionManager, which calls save and clear under its lock.
class SessionStore {
  public:
    virtual ~SessionStore() = default;
    virtual std::optional<AuthSession> load() = 0;
    virtual void save(const AuthSession& session) = 0;
    virtual void clear() = 0;
};

} // namespace kavelo
