#include "tools/cli/AccountCommands.h"

#include "core/accounts/AuthError.h"
#include "tools/cli/CliContext.h"

#include <cstdio>
#include <iostream>
#include <termios.h>
#include <unistd.h>

namespace kavelo::cli {

namespace {

// The password never travels as an argument (it would sit in the shell history and in every process
// listing): it is typed at a prompt with the echo off, or read as one line from standard input.
std::optional<std::string> readPassword() {
    std::string password;
    if (::isatty(STDIN_FILENO) != 0) {
        std::fputs("Password: ", stderr);
        std::fflush(stderr);
        termios saved{};
        const bool canHide = ::tcgetattr(STDIN_FILENO, &saved) == 0;
        if (canHide) {
            termios hidden = saved;
            hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
        }
        const bool read = static_cast<bool>(std::getline(std::cin, password));
        if (canHide) {
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
        }
        std::fputs("\n", stderr);
        if (!read) {
            return std::nullopt;
        }
    } else if (!std::getline(std::cin, password)) {
        return std::nullopt;
    }
    if (!password.empty() && password.back() == '\r') {
        password.pop_back();
    }
    return password;
}

Json userJson(const AuthUser& user) {
    Json json{{"id", user.id}, {"email", user.email}};
    if (user.workProfile) {
        json["workProfile"] = *user.workProfile;
    }
    return json;
}

} // namespace

const char* AccountCommands::loginHelp() {
    return R"(Usage: kavelo-cli login --email ADDRESS [--session-file PATH] [--json] [--verbose]

Signs in with an e-mail address and password. The password is asked for at a prompt (typing is
not shown) or, when standard input is not a terminal, read as its first line. It is never taken
as an argument. The session is kept in the Secret Service under the application's name; on a
machine without one, --session-file keeps it in a file readable by you alone.

In the mock world (KAVELO_BACKEND=mock) the demo account is demo@kavely.nl / kavely24, and
`record` signs in with it by itself.
)";
}

const char* AccountCommands::logoutHelp() {
    return R"(Usage: kavelo-cli logout [--session-file PATH] [--json] [--verbose]

Signs out: tells the backend, then forgets the session kept on this machine. The session is
forgotten even when the backend cannot be reached.
)";
}

const char* AccountCommands::whoamiHelp() {
    return R"(Usage: kavelo-cli whoami [--session-file PATH] [--json] [--verbose]

Shows who is signed in. Exit status 0 when someone is, 1 when nobody is.
)";
}

int AccountCommands::login(const std::vector<std::string>& rawArgs) {
    std::set<std::string> valued = CliContext::sessionOptions();
    valued.insert("email");
    const CliArguments args(rawArgs, valued, CliContext::commonSwitches());
    const auto email = args.value("email");
    if (!email || email->empty()) {
        throw UsageError("--email ADDRESS is required");
    }
    CliContext context(args);
    auto& env = context.env();
    const auto password = readPassword();
    if (!password || password->empty()) {
        context.printer().error("no password given; nothing changed");
        return 2;
    }
    try {
        const AuthSession session = env.authService->signIn(*email, *password);
        env.sessionManager->install(session);
        context.printer().event("signed_in", Json{{"user", userJson(session.user)}},
                                "Signed in as " + session.user.email + ".");
        if (const auto file = args.value("session-file")) {
            context.printer().say("Session kept in " + *file +
                                  " (readable by you alone), not in the Secret Service.");
        } else if (env.usesMockServices) {
            context.printer().say(
                "The mock world keeps no session between runs; `record` signs in by itself.");
        }
        return 0;
    } catch (const AuthError& error) {
        context.printer().error("sign-in failed: " + std::string(error.what()));
        return 1;
    } catch (const std::exception& error) {
        context.printer().error("sign-in failed: " + std::string(error.what()));
        return 1;
    }
}

int AccountCommands::logout(const std::vector<std::string>& rawArgs) {
    const CliArguments args(rawArgs, CliContext::sessionOptions(), CliContext::commonSwitches());
    CliContext context(args);
    auto& env = context.env();
    const auto session = env.sessionManager->session();
    if (!session) {
        context.printer().event("signed_out", Json{{"wasSignedIn", false}}, "Nobody was signed in.");
        return 0;
    }
    try {
        env.authService->signOut(session->accessToken);
    } catch (const std::exception& error) {
        // The local session goes regardless: someone who asks to sign out must not stay signed in.
        context.printer().error("the backend did not confirm the sign-out (" + std::string(error.what()) +
                                "); the session on this machine is forgotten anyway");
    }
    env.sessionManager->signOut();
    context.printer().event("signed_out", Json{{"wasSignedIn", true}, {"user", userJson(session->user)}},
                            "Signed out " + session->user.email + ".");
    return 0;
}

int AccountCommands::whoami(const std::vector<std::string>& rawArgs) {
    const CliArguments args(rawArgs, CliContext::sessionOptions(), CliContext::commonSwitches());
    CliContext context(args);
    auto& env = context.env();
    const auto session = env.sessionManager->session();
    if (!session) {
        std::string line = "Nobody is signed in.";
        if (env.usesMockServices) {
            line += " In the mock world `record` signs in as " + env.demoEmail + " by itself.";
        } else {
            line += " Run: kavelo-cli login --email ADDRESS";
        }
        context.printer().event("whoami", Json{{"signedIn", false}}, line);
        return 1;
    }
    const bool expired = session->isExpired(env.clock->now());
    context.printer().event(
        "whoami", Json{{"signedIn", true}, {"user", userJson(session->user)}, {"tokenExpired", expired}},
        "Signed in as " + session->user.email +
            (expired ? " (the access token will be refreshed on first use)" : "") + ".");
    return 0;
}

} // namespace kavelo::cli
