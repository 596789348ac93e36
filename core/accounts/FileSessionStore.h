#pragma once

#include "core/accounts/SessionStore.h"
#include "core/support/CoreLogger.h"

#include <filesystem>
#include <memory>

namespace kavelo {

// The session as a JSON file readable by its owner only (0600, in a 0700 directory), replaced
// atomically. Only for headless use where the user asked for it explicitly: the tokens lie on disk
// unencrypted, protected by file permissions alone. The JSON is the same as the Secret Service item's.
//
// Like every store it reports no failure: each one is logged (never with a token) and the session
// then lives in memory only. No mutable state; calls may come from any thread.
class FileSessionStore final : public SessionStore {
  public:
    FileSessionStore(std::filesystem::path path, std::shared_ptr<CoreLogger> logger);

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

    std::optional<AuthSession> load() override;
    void save(const AuthSession& session) override;
    void clear() override;

  private:
    const std::filesystem::path path_;
    const std::shared_ptr<CoreLogger> logger_;
};

} // namespace kavelo
