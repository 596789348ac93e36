#pragma once

#include "app/shell/AppEnvironment.h"
#include "tools/cli/CliArguments.h"
#include "tools/cli/CliLanguage.h"
#include "tools/cli/EventPrinter.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace kavelo::cli {

// What every command shares: the composed world, the printer, the user's language and the way it signs
// in.
class CliContext {
  public:
    // Options every command that touches the session accepts.
    static const std::set<std::string>& sessionOptions(); // valued: "session-file"
    static const std::set<std::string>& commonSwitches(); // "json", "verbose", "help"

    // Commands that never touch the session (devices, status) pass needsSession false, so that a machine
    // without a Secret Service does not log a failed keychain read for them. Throws CliFailure, before
    // any service is built, when the world cannot be told (a broken KAVELO_INFO_FILE, a live world
    // without a backend) or the session file is one we must not use.
    explicit CliContext(const CliArguments& args, bool needsSession = true,
                        AppEnvironment::Options options = {});

    AppEnvironment& env() { return *env_; }
    EventPrinter& printer() { return printer_; }
    [[nodiscard]] const CliLanguage& language() const { return language_; }
    [[nodiscard]] std::string text(const std::string& english, const std::string& dutch) const {
        return language_.text(english, dutch);
    }

    // The signed-in user: in the mock world the demo account signs in by itself; in the live world the
    // stored session is used. Absent (with a message already printed) when nobody is signed in.
    std::optional<AuthSession> signIn();

    // "mode: mock (mock services, mock recorder)"-style summary for people.
    [[nodiscard]] std::string describeWorld() const;

    // The environment error in the user's words, with the path or value and what to do.
    static std::string explain(const EnvironmentError& error, const CliLanguage& language);
    // Refuses a session file that is not a plain file of this user's that only this user can read;
    // the tokens in it are as good as a password. An absent file is fine: login creates it.
    static void checkSessionFile(const std::filesystem::path& path, const CliLanguage& language);

  private:
    CliLanguage language_;
    EventPrinter printer_;
    std::unique_ptr<AppEnvironment> env_;
};

std::string userNameOf(const AuthUser& user);

} // namespace kavelo::cli
