#include "tools/cli/AccountCommands.h"
#include "tools/cli/CliArguments.h"
#include "tools/cli/InfoCommands.h"
#include "tools/cli/RecordCommand.h"

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
    std::function<int(const std::vector<std::string>&)> run;
};

const std::vector<Command>& commands() {
    static const std::vector<Command> list{
        {"record", "record a meeting and request its report", &RecordCommand::help, &RecordCommand::run},
        {"recover", "finish a recording that an earlier run left behind", &RecoverCommand::help,
         [](const std::vector<std::string>& args) { return RecoverCommand::run(args, false); }},
        {"retry", "ask again for the report after a recoverable error", &RecoverCommand::retryHelp,
         [](const std::vector<std::string>& args) { return RecoverCommand::run(args, true); }},
        {"devices", "list microphones, outputs and system audio sources", &InfoCommands::devicesHelp,
         &InfoCommands::devices},
        {"status", "mode, data directory, recordings left behind, chunks on disk", &InfoCommands::statusHelp,
         &InfoCommands::status},
        {"login", "sign in with e-mail and password", &AccountCommands::loginHelp, &AccountCommands::login},
        {"logout", "sign out and forget the session", &AccountCommands::logoutHelp, &AccountCommands::logout},
        {"whoami", "show who is signed in", &AccountCommands::whoamiHelp, &AccountCommands::whoami},
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
               "  KAVELO_BACKEND=mock|live   force the world (default: live when the application's backend\n"
               "                             values are set, else mock)\n"
               "  KAVELO_RECORDER=mock       in the mock world, record from the mock recorder instead of\n"
               "                             the audio server\n"
               "  KAVELO_INFO_FILE=PATH      read the backend values from this file instead of the built-in\n"
               "                             ones\n"
               "  KAVELO_DISABLE_AUDIO_TAP=1 capture system audio through the fallback path only\n",
               out);
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        printUsage(stdout);
        return args.empty() ? 2 : 0;
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
                return 0;
            }
        }
        try {
            return command.run(args);
        } catch (const UsageError& error) {
            std::fprintf(stderr, "kavelo-cli %s: %s\nRun `kavelo-cli %s --help` for the options.\n",
                         name.c_str(), error.what(), name.c_str());
            return 2;
        } catch (const std::exception& error) {
            std::fprintf(stderr, "kavelo-cli %s: %s\n", name.c_str(), error.what());
            return 1;
        }
    }
    std::fprintf(stderr, "kavelo-cli: unknown command '%s'\n\n", name.c_str());
    printUsage(stderr);
    return 2;
}
