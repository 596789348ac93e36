#include "tools/cli/CliContext.h"

#include "tools/cli/CliFailure.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

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

std::string CliContext::explain(const EnvironmentError& error, const CliLanguage& language) {
    const std::string& subject = error.subject();
    const std::string because = error.detail().empty() ? "" : " (" + error.detail() + ")";
    const std::string mockHint = language.text("; or set KAVELO_BACKEND=mock to try the mock world",
                                               "; of zet KAVELO_BACKEND=mock om de proefwereld te gebruiken");
    switch (error.kind()) {
    case EnvironmentError::Kind::infoFileUnreadable:
        return language.text(
                   "KAVELO_INFO_FILE names " + subject + ", which cannot be read" + because +
                       ". Nothing was recorded. Point KAVELO_INFO_FILE at the JSON file with "
                       "SUPABASE_URL and SUPABASE_ANON_KEY, or unset it",
                   "KAVELO_INFO_FILE wijst naar " + subject + ", dat niet te lezen is" + because +
                       ". Er is niets opgenomen. Laat KAVELO_INFO_FILE wijzen naar het JSON-bestand "
                       "met SUPABASE_URL en SUPABASE_ANON_KEY, of haal de variabele weg") +
               mockHint;
    case EnvironmentError::Kind::infoFileNotAnObject:
        return language.text("KAVELO_INFO_FILE names " + subject + ", which is not a JSON object" + because +
                                 ". Nothing was recorded. Fix the file, e.g. "
                                 "{\"SUPABASE_URL\":\"https://...\",\"SUPABASE_ANON_KEY\":\"...\"}",
                             "KAVELO_INFO_FILE wijst naar " + subject + ", dat geen JSON-object is" +
                                 because +
                                 ". Er is niets opgenomen. Herstel het bestand, bijvoorbeeld "
                                 "{\"SUPABASE_URL\":\"https://...\",\"SUPABASE_ANON_KEY\":\"...\"}") +
               mockHint;
    case EnvironmentError::Kind::unknownBackendChoice:
        return language.text("KAVELO_BACKEND is '" + subject + "'; set it to live or mock, or unset it",
                             "KAVELO_BACKEND is '" + subject + "'; zet hem op live of mock, of haal hem weg");
    case EnvironmentError::Kind::noBackendAddress: {
        const bool builtIn = subject == InfoDictionary().source();
        return language.text(
                   "no backend to talk to: SUPABASE_URL or SUPABASE_ANON_KEY is missing from " +
                       (builtIn ? std::string("the values built into this program") : subject) +
                       ". Nothing was recorded. Set KAVELO_INFO_FILE to a JSON file with both",
                   "geen backend om mee te praten: SUPABASE_URL of SUPABASE_ANON_KEY ontbreekt in " +
                       (builtIn ? std::string("de waarden van dit programma") : subject) +
                       ". Er is niets opgenomen. Zet KAVELO_INFO_FILE op een JSON-bestand met allebei") +
               mockHint;
    }
    case EnvironmentError::Kind::badBackendAddress:
        return language.text("SUPABASE_URL '" + subject + "' " + error.detail() +
                                 " is not an address with a host. Nothing was recorded. Fix the address",
                             "SUPABASE_URL '" + subject + "' " + error.detail() +
                                 " is geen adres met een host. Er is niets opgenomen. Herstel het adres");
    }
    return error.what();
}

void CliContext::checkSessionFile(const std::filesystem::path& path, const CliLanguage& language) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        // Absent, or under something that is no folder: nothing to refuse yet; a login that cannot save
        // there says so.
        if (errno == ENOENT || errno == ENOTDIR) {
            return;
        }
        throw CliFailure(language.text("the session file " + path.string() + " cannot be checked (" +
                                           std::strerror(errno) + "); give another path with --session-file",
                                       "het sessiebestand " + path.string() + " is niet te controleren (" +
                                           std::strerror(errno) +
                                           "); geef een ander pad met --session-file"));
    }
    if (S_ISDIR(info.st_mode)) {
        throw CliFailure(language.text(path.string() + " is a folder; --session-file takes a file, e.g. " +
                                           (path / "session.json").string(),
                                       path.string() +
                                           " is een map; --session-file neemt een bestand, bijvoorbeeld " +
                                           (path / "session.json").string()));
    }
    if (!S_ISREG(info.st_mode)) {
        throw CliFailure(language.text(
            path.string() + " is not a plain file (a link or a device); give the path of a file of your own",
            path.string() + " is geen gewoon bestand (een koppeling of apparaat); geef het pad van een eigen "
                            "bestand"));
    }
    if (info.st_uid != ::geteuid()) {
        throw CliFailure(language.text("the session file " + path.string() +
                                           " belongs to another user; use a file of your own",
                                       "het sessiebestand " + path.string() +
                                           " is van een andere gebruiker; gebruik een eigen bestand"));
    }
    if ((info.st_mode & 077) != 0) {
        throw CliFailure(
            language.text("others can read or change the session file " + path.string() +
                              "; its tokens may be known. Run: chmod 600 " + path.string() +
                              " and sign in again (kavelo-cli login)",
                          "anderen kunnen het sessiebestand " + path.string() +
                              " lezen of wijzigen; de sleutels erin kunnen bekend zijn. Voer uit: "
                              "chmod 600 " +
                              path.string() + " en meld opnieuw aan (kavelo-cli login)"));
    }
}

CliContext::CliContext(const CliArguments& args, bool needsSession, AppEnvironment::Options options)
    : language_(CliLanguage::fromEnvironment(options.env)), printer_(args.has("json")) {
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
    try {
        if (!options.info) {
            options.info = InfoDictionary::load(options.env);
        }
        const auto mode = AppEnvironment::detectMode(options);
        if (const auto file = args.value("session-file")) {
            checkSessionFile(*file, language_);
            options.sessionStorage = AppEnvironment::SessionStorage::file;
            options.sessionFile = *file;
        } else if (mode == AppEnvironment::Mode::mock || !needsSession) {
            // The mock world signs in with its demo account on every run; nothing worth keeping.
            options.sessionStorage = AppEnvironment::SessionStorage::memory;
        }
        env_ = std::make_unique<AppEnvironment>(mode, std::move(options));
    } catch (const EnvironmentError& error) {
        throw CliFailure(explain(error, language_));
    }
}

std::optional<AuthSession> CliContext::signIn() {
    auto& e = env();
    if (auto session = e.sessionManager->session()) {
        e.coordinator->sessionDidSignIn();
        return session;
    }
    if (!e.usesMockServices) {
        printer_.error(text("nobody is signed in. Run: kavelo-cli login --email ADDRESS",
                            "niemand is aangemeld. Voer uit: kavelo-cli login --email ADRES"));
        return std::nullopt;
    }
    try {
        const AuthSession session = e.authService->signIn(e.demoEmail, e.demoPassword);
        e.sessionManager->install(session);
        e.coordinator->sessionDidSignIn();
        printer_.say(text("Signed in to the mock backend as " + session.user.email + ".",
                          "Aangemeld bij de proefbackend als " + session.user.email + "."));
        return session;
    } catch (const std::exception& error) {
        printer_.error(text("the mock backend refused its own demo account (",
                            "de proefbackend weigerde zijn eigen "
                            "demo-account (") +
                       error.what() + ")");
        return std::nullopt;
    }
}

std::string CliContext::describeWorld() const {
    const auto& e = *env_;
    if (e.usesMockServices) {
        return text("mock world (in-process backend, ", "proefwereld (backend in dit proces, ") +
               (e.recorderKind == "mock" ? text("mock recorder)", "proefrecorder)")
                                         : text("real recorder)", "echte recorder)"));
    }
    return text("live, backend ", "live, backend ") + e.config.supabaseUrl;
}

} // namespace kavelo::cli
