#pragma once

#include "app/shell/AppEnvironment.h"
#include "tools/cli/CliArguments.h"
#include "tools/cli/EventPrinter.h"

#include <memory>
#include <optional>
#include <string>

namespace kavelo::cli {

// What every command shares: the composed world, the printer, and the way it signs in.
class CliContext {
  public:
    // Options every command that touches the session accepts.
    static const std::set<std::string>& sessionOptions(); // valued: "session-file"
    static const std::set<std::string>& commonSwitches(); // "json", "verbose", "help"

    // Commands that never touch the session (devices, status) pass needsSession false, so that a machine
    // without a Secret Service does not log a failed keychain read for them.
    explicit CliContext(const CliArguments& args, bool needsSession = true,
                        AppEnvironment::Options options = {});

    AppEnvironment& env() { return *env_; }
    EventPrinter& printer() { return printer_; }

    // The signed-in user: in the mock world the demo account signs in by itself; in the live world the
    // stored session is used. Absent (with a message already printed) when nobody is signed in.
    std::optional<AuthSession> signIn();

    // "mode: mock (mock services, mock recorder)"-style summary for people.
    [[nodiscard]] std::string describeWorld() const;

  private:
    EventPrinter printer_;
    bool fileSession_ = false;
    std::unique_ptr<AppEnvironment> env_;
};

std::string userNameOf(const AuthUser& user);

} // namespace kavelo::cli
