#include "tools/cli/AccountCommands.h"
#include "tools/cli/CliArguments.h"
#include "tools/cli/CliFailure.h"
#include "tools/cli/ExitCode.h"
#include "tools/cli/InfoCommands.h"
#include "tools/cli/RecordCommand.h"
#include "tools/cli/SignalWatcher.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace kavelo::cli;

struct Command {
    const char* name;
    const char* summary;
    const char* (*help)();
    std::function<int(const std::vector<std::string>&, SignalWatcher&)> run;
};

// Commands that never look at a signal: a Ctrl-C ends them at once, which the fallback handler does.
template <int (*Plain)(const std::vector<std::string>&)>
int ignoringSignals(const std::vector<std::string>& args, SignalWatcher&) {
    return Plain(args);
}

const std::vector<Command>& commands() {
    static const std::vector<Command> list{
        {"record", "record a meeting and request its report", &RecordCommand::help, &RecordCommand::run},
        {"recover", "finish a recording that an earlier run left behind", &RecoverCommand::help,
         [](const std::vector<std::string>& args, SignalWatcher& signals) {
             return RecoverCommand::run(args, false, signals);
         }},
        {"retry", "ask again for the report after a recoverable error", &RecoverCommand::retryHelp,
         [](const std::vector<std::string>& args, SignalWatcher& signals) {
             return RecoverCommand::run(args, true, signals);
         }},
        {"devices", "list microphones, outputs and system audio sources", &InfoCommands::devicesHelp,
         &ignoringSignals<&InfoCommands::devices>},
        {"status", "mode, data directory, recordings left behind, chunks on disk", &InfoCommands::statusHelp,
         &ignoringSignals<&InfoCommands::status>},
        {"login", "sign in with e-mail and password", &AccountCommands::loginHelp, &AccountCommands::login},
        {"logout", "sign out and forget the session", &AccountCommands::logoutHelp,
         &ignoringSignals<&AccountCommands::logout>},
        {"whoami", "show who is signed in", &AccountCommands::whoamiHelp,
         &ignoringSignals<&AccountCommands::whoami>},
    };
    return list;
}

void printUsage(std::FILE* out) {
    std::fputs("Usage: kavelo-cli COMMAND [options]\n\n"
               "Records meetings from the command line and hands them to the backend for a report.\n\n"
               "Commands:\n",
               out);
    for (const auto& command : commands()) {
        std::fprintf(out, "  %-9s %s\n", command.name, command.summary);
    }
    std::fputs("\nRun `kavelo-cli COMMAND --help` for a command's options.\n\n"
               "Environment:\n"
               "  KAVELO_BACKEND=mock|live   mock: the in-process mock backend; live (the default): the\n"
               "                             backend of the built-in values or of KAVELO_INFO_FILE. Without\n"
               "                             a backend the live world refuses to start; it never falls back\n"
               "                             to mock by itself\n"
               "  KAVELO_RECORDER=mock       in the mock world, record from the mock recorder instead of\n"
               "                             the audio server\n"
               "  KAVELO_INFO_FILE=PATH      read the backend values (SUPABASE_URL, SUPABASE_ANON_KEY) from\n"
               "                             this JSON file instead of the built-in ones\n"
               "  KAVELO_DISABLE_AUDIO_TAP=1 capture system audio through the fallback path only\n\n"
               "Exit status:\n"
               "  0    done: for record, the report was requested\n"
               "  1    failed; the message says why and what to do\n"
               "  2    a mistake on the command line\n"
               "  3    the recording is kept on this machine and not sent yet: kavelo-cli recover\n"
               "  130  quit at once by a third Ctrl-C\n",
               out);
}

} // namespace

int main(int argc, char** argv) {
    // Before any thread exists, so that every thread started later inherits the mask and a Ctrl-C can
    // only reach the watcher.
    SignalWatcher::blockStopSignals();
    SignalWatcher signals([](int, int) {
        std::fflush(nullptr);
        std::_Exit(exitInterrupted);
    });

    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) {
        printUsage(stderr);
        return exitUsage;
    }
    if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        printUsage(stdout);
        return exitSuccess;
    }
    const std::string name = args[0];
    args.erase(args.begin());
    for (const auto& command : commands()) {
        if (name != command.name) {
            continue;
        }
        for (const auto& arg : args) {
            if (arg == "--help" || arg == "-h") {
                std::fputs(command.help(), stdout);
                return exitSuccess;
            }
        }
        try {
            return command.run(args, signals);
        } catch (const UsageError& error) {
            std::fprintf(stderr, "kavelo-cli %s: %s\nRun `kavelo-cli %s --help` for the options.\n",
                         name.c_str(), error.what(), name.c_str());
            return exitUsage;
        } catch (const CliFailure& error) {
            std::fprintf(stderr, "kavelo-cli %s: %s\n", name.c_str(), error.what());
            return exitFailure;
        } catch (const std::exception& error) {
            std::fprintf(stderr, "kavelo-cli %s: %s\n", name.c_str(), error.what());
            return exitFailure;
        }
    }
    std::fprintf(stderr, "kavelo-cli: unknown command '%s'\n\n", name.c_str());
    printUsage(stderr);
    return exitUsage;
}
