#include "tools/cli/CliContext.h"

namespace kavelo::cli {

const std::set<std::string>& CliContext::sessionOptions() {
    static const std::set<std::string> options{"session-file"};
    return options;
}

const std::set<std::string>& CliContext::commonSwitches() {
    static const std::set<std::string> switches{"json", "verbose", "help"};
    return switches;
}

std::string userNameOf(const AuthUser& user) {
    const auto at = user.email.find('@');
    return at == std::string::npos || at == 0 ? user.email : user.email.substr(0, at);
}

CliContext::CliContext(const CliArguments& args, bool needsSession, AppEnvironment::Options options)
    : printer_(args.has("json")) {
    const bool verbose = args.has("verbose");
    // Standard output belongs to the command's own messages; the logs go to standard error, and only
    // warnings and errors unless asked for more.
    options.logSink = [verbose](LogLevel level, const std::string& category, const std::string& message) {
        if (!verbose && (level == LogLevel::debug || level == LogLevel::info)) {
            return;
        }
        std::fprintf(stderr, "[%s] %s: %s\n", std::string(toRaw(level)).c_str(), category.c_str(),
                     message.c_str());
    };
    const auto mode = AppEnvironment::detectMode(options);
    if (const auto file = args.value("session-file")) {
        options.sessionStorage = AppEnvironment::SessionStorage::file;
        options.sessionFile = *file;
        fileSession_ = true;
    } else if (mode == AppEnvironment::Mode::mock || !needsSession) {
        // The mock world signs in with its demo account on every run; nothing worth keeping.
        options.sessionStorage = AppEnvironment::SessionStorage::memory;
    }
    env_ = std::make_unique<AppEnvironment>(mode, std::move(options));
}

std::optional<AuthSession> CliContext::signIn() {
    auto& e = env();
    if (auto session = e.sessionManager->session()) {
        e.coordinator->sessionDidSignIn();
        return session;
    }
    if (!e.usesMockServices) {
        printer_.error("nobody is signed in. Run: kavelo-cli login --email ADDRESS");
        return std::nullopt;
    }
    try {
        const AuthSession session = e.authService->signIn(e.demoEmail, e.demoPassword);
        e.sessionManager->install(session);
        e.coordinator->sessionDidSignIn();
        printer_.say("Signed in to the mock backend as " + session.user.email + ".");
        return session;
    } catch (const std::exception& error) {
        printer_.error(std::string("sign-in failed: ") + error.what());
        return std::nullopt;
    }
}

std::string CliContext::describeWorld() const {
    const auto& e = *env_;
    std::string text = std::string(toRaw(e.mode));
    text += e.usesMockServices ? " (mock services" : " (backend " + e.config.supabaseUrl;
    text += ", " + e.recorderKind + " recorder)";
    return text;
}

} // namespace kavelo::cli
