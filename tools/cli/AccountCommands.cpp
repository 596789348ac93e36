#include "tools/cli/AccountCommands.h"

#include "core/accounts/AuthError.h"
#include "core/accounts/FileSessionStore.h"
#include "tools/cli/CliContext.h"
#include "tools/cli/ExitCode.h"

#include <cstdio>
#include <iostream>
#include <termios.h>
#include <unistd.h>

namespace kavelo::cli {

namespace {

// The password never travels as an argument (it would sit in the shell history and in every process
// listing): it is typed at a prompt with the echo off, or read as one line from standard input.
// A Ctrl-C at the prompt must not leave the terminal without echo: the handler puts the saved settings
// back before the program ends.
std::optional<std::string> readPassword(SignalWatcher& signals, const CliContext& context) {
    std::string password;
    if (::isatty(STDIN_FILENO) != 0) {
        std::fputs(context.text("Password: ", "Wachtwoord: ").c_str(), stderr);
        std::fflush(stderr);
        termios saved{};
        const bool canHide = ::tcgetattr(STDIN_FILENO, &saved) == 0;
        const SignalWatcher::Scope interrupts(signals, [canHide, saved](int, int) {
            if (canHide) {
                ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
            }
            std::fputs("\n", stderr);
            std::_Exit(exitInterrupted);
        });
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

// Why a sign-in failed, in the user's words and with what to do next; never the enumeration's name.
std::string signInFailure(const AuthError& error, const CliContext& c) {
    using Kind = AuthError::Kind;
    switch (error.kind()) {
    case Kind::invalidCredentials:
        return c.text(
            "the e-mail address or the password is wrong; check both and try again",
            "het e-mailadres of het wachtwoord klopt niet; controleer beide en probeer het opnieuw");
    case Kind::emailNotVerified:
        return c.text(
            "this e-mail address is not confirmed yet; open the confirmation mail, then sign in again",
            "dit e-mailadres is nog niet bevestigd; open de bevestigingsmail en meld daarna opnieuw aan");
    case Kind::rateLimited:
        return c.text("too many attempts; wait a few minutes and try again",
                      "te veel pogingen; wacht een paar minuten en probeer het opnieuw");
    case Kind::network:
        return c.text("the backend cannot be reached; check the network and try again",
                      "de backend is niet bereikbaar; controleer het netwerk en probeer het opnieuw");
    case Kind::cancelled:
        return c.text("the sign-in was cancelled; nothing changed",
                      "het aanmelden is afgebroken; er is niets veranderd");
    default:
        break;
    }
    const std::string detail = error.text().empty() ? "" : " (" + error.text() + ")";
    return c.text("the backend refused the sign-in" + detail + "; try again later",
                  "de backend weigerde de aanmelding" + detail + "; probeer het later opnieuw");
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

int AccountCommands::login(const std::vector<std::string>& rawArgs, SignalWatcher& signals) {
    std::set<std::string> valued = CliContext::sessionOptions();
    valued.insert("email");
    const CliArguments args(rawArgs, valued, CliContext::commonSwitches());
    const auto email = args.value("email");
    if (!email || email->empty()) {
        throw UsageError("--email ADDRESS is required");
    }
    CliContext context(args);
    auto& env = context.env();
    const auto password = readPassword(signals, context);
    if (!password || password->empty()) {
        context.printer().error(context.text("no password given; nothing changed. Type it at the prompt or "
                                             "give it as the first line of standard "
                                             "input",
                                             "geen wachtwoord gegeven; er is niets veranderd. Typ het bij de "
                                             "vraag of geef het als eerste regel "
                                             "op standaardinvoer"));
        return exitUsage;
    }
    AuthSession session;
    try {
        session = env.authService->signIn(*email, *password);
    } catch (const AuthError& error) {
        context.printer().error(context.text("sign-in failed: ", "aanmelden mislukt: ") +
                                signInFailure(error, context));
        return exitFailure;
    } catch (const std::exception& error) {
        context.printer().error(context.text("sign-in failed (", "aanmelden mislukt (") + error.what() +
                                context.text("); try again later", "); probeer het later opnieuw"));
        return exitFailure;
    }
    env.sessionManager->install(session);
    context.printer().event("signed_in", Json{{"user", userJson(session.user)}},
                            context.text("Signed in as ", "Aangemeld als ") + session.user.email + ".");
    if (const auto file = args.value("session-file")) {
        // The store reports no failure of its own: read the file back to know whether the session is kept.
        auto quiet = std::make_shared<CoreLogger>(env.clock, 10);
        const auto kept = FileSessionStore(*file, quiet).load();
        if (!kept || kept->accessToken != session.accessToken) {
            context.printer().error(context.text(
                "the session could not be saved in " + *file +
                    " (see the log line above); it lasted only for this run. Choose a folder you can write "
                    "to and sign in again",
                "de sessie kon niet worden bewaard in " + *file +
                    " (zie de logregel hierboven); ze gold alleen voor deze keer. Kies een map waarin je mag "
                    "schrijven en meld opnieuw aan"));
            return exitFailure;
        }
        context.printer().say(context.text("Session kept in " + *file +
                                               " (readable by you alone), not in the "
                                               "Secret Service.",
                                           "Sessie bewaard in " + *file +
                                               " (alleen door jou te lezen), niet in "
                                               "de Secret Service."));
    } else if (env.usesMockServices) {
        context.printer().say(context.text(
            "The mock world keeps no session between runs; `record` signs in by itself.",
            "De proefwereld bewaart geen sessie tussen twee keren; `record` meldt zichzelf aan."));
    }
    return exitSuccess;
}

int AccountCommands::logout(const std::vector<std::string>& rawArgs) {
    const CliArguments args(rawArgs, CliContext::sessionOptions(), CliContext::commonSwitches());
    CliContext context(args);
    auto& env = context.env();
    const auto session = env.sessionManager->session();
    if (!session) {
        context.printer().event("signed_out", Json{{"wasSignedIn", false}},
                                context.text("Nobody was signed in.", "Er was niemand aangemeld."));
        return exitSuccess;
    }
    try {
        env.authService->signOut(session->accessToken);
    } catch (const std::exception& error) {
        // The local session goes regardless: someone who asks to sign out must not stay signed in.
        context.printer().error(context.text("the backend did not confirm the sign-out (",
                                             "de backend bevestigde het afmelden niet (") +
                                error.what() +
                                context.text("); the session on this machine is forgotten anyway",
                                             "); de sessie op deze computer is toch vergeten"));
    }
    env.sessionManager->signOut();
    context.printer().event("signed_out", Json{{"wasSignedIn", true}, {"user", userJson(session->user)}},
                            context.text("Signed out ", "Afgemeld: ") + session->user.email + ".");
    return exitSuccess;
}

int AccountCommands::whoami(const std::vector<std::string>& rawArgs) {
    const CliArguments args(rawArgs, CliContext::sessionOptions(), CliContext::commonSwitches());
    CliContext context(args);
    auto& env = context.env();
    const auto session = env.sessionManager->session();
    if (!session) {
        const std::string line =
            env.usesMockServices
                ? context.text("Nobody is signed in. In the mock world `record` signs in as " +
                                   env.demoEmail + " by itself.",
                               "Niemand is aangemeld. In de proefwereld meldt `record` zich zelf aan als " +
                                   env.demoEmail + ".")
                : context.text("Nobody is signed in. Run: kavelo-cli login --email ADDRESS",
                               "Niemand is aangemeld. Voer uit: kavelo-cli login --email ADRES");
        context.printer().event("whoami", Json{{"signedIn", false}}, line);
        return exitFailure;
    }
    const bool expired = session->isExpired(env.clock->now());
    context.printer().event(
        "whoami", Json{{"signedIn", true}, {"user", userJson(session->user)}, {"tokenExpired", expired}},
        context.text("Signed in as ", "Aangemeld als ") + session->user.email +
            (expired ? context.text(" (the access token will be refreshed on first use)",
                                    " (de toegangssleutel wordt bij het eerste gebruik vernieuwd)")
                     : "") +
            ".");
    return exitSuccess;
}

} // namespace kavelo::cli
