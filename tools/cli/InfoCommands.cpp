#include "tools/cli/InfoCommands.h"

#include "core/support/CoreJSON.h"
#include "tools/cli/CliContext.h"
#include "tools/cli/ExitCode.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace kavelo::cli {

namespace {

std::string deviceLine(const AudioDevice& device) {
    std::string line = "  " + device.id + "  " + device.name;
    if (device.transport) {
        line += " [" + *device.transport + "]";
    }
    if (device.isDefault) {
        line += " (default)";
    }
    return line;
}

void printDevices(EventPrinter& printer, const std::string& title, const std::vector<AudioDevice>& devices) {
    printer.say(title + ":");
    if (devices.empty()) {
        printer.say("  (none)");
    }
    for (const auto& device : devices) {
        printer.event("device", toJson(device), deviceLine(device));
    }
}

// Why the data directory cannot hold recordings, or absent when it can: it must be a folder this user
// may enter and write in.
std::optional<std::string> dataDirectoryProblem(const std::filesystem::path& dir) {
    struct stat info {};
    if (::stat(dir.c_str(), &info) != 0) {
        return std::string(std::strerror(errno));
    }
    if (!S_ISDIR(info.st_mode)) {
        return std::string("not a folder");
    }
    if (::access(dir.c_str(), W_OK | X_OK) != 0) {
        return std::string(std::strerror(errno));
    }
    return std::nullopt;
}

} // namespace

const char* InfoCommands::devicesHelp() {
    return R"(Usage: kavelo-cli devices [--json] [--verbose]

Lists the microphones, the output devices and the sources of system audio that a recording can
use, with the ids that `record --mic` and `record --app` take, and whether the audio server lets
this program capture the microphone and the system audio. In the mock world with
KAVELO_RECORDER=mock the list is the mock recorder's.
With --json: one {"event":"device",...} line per device and one {"event":"permissions",...} line.
)";
}

const char* InfoCommands::statusHelp() {
    return R"(Usage: kavelo-cli status [--json] [--verbose]

Shows the mode (live or mock) and where it came from, the data directory, a recording that an
earlier run left behind (finish it with `kavelo-cli recover`), and the chunks kept on disk per
recording (chunks are deleted once the server holds them).
Exit status 1 when the data directory cannot be used: nothing could be recorded then.
)";
}

int InfoCommands::devices(const std::vector<std::string>& rawArgs) {
    const CliArguments args(rawArgs, {}, CliContext::commonSwitches());
    CliContext context(args, false);
    auto& recorder = *context.env().recorder;
    auto& printer = context.printer();
    printer.say("Recorder: " + context.env().recorderKind);
    printDevices(printer, "Microphones", recorder.listMicrophones());
    printDevices(printer, "Output devices", recorder.listOutputDevices());
    printDevices(printer, "System audio sources", recorder.listSystemAudioSources());
    const auto microphone = recorder.checkMicrophonePermission();
    const auto systemAudio = recorder.checkSystemAudioPermission();
    printer.event("permissions",
                  Json{{"microphone", std::string(toRaw(microphone))},
                       {"systemAudio", std::string(toRaw(systemAudio))}},
                  "Permissions: microphone " + std::string(toRaw(microphone)) + ", system audio " +
                      std::string(toRaw(systemAudio)));
    return 0;
}

int InfoCommands::status(const std::vector<std::string>& rawArgs) {
    const CliArguments args(rawArgs, {}, CliContext::commonSwitches());
    CliContext context(args, false);
    auto& env = context.env();
    auto& printer = context.printer();

    printer.event("mode",
                  Json{{"mode", std::string(toRaw(env.mode))},
                       {"mockServices", env.usesMockServices},
                       {"recorder", env.recorderKind},
                       {"dataDirectory", env.config.applicationSupportDirectory.string()}},
                  context.text("Mode: ", "Modus: ") + context.describeWorld() +
                      context.text("\nData directory: ", "\nGegevensmap: ") +
                      env.config.applicationSupportDirectory.string());

    const auto& dataDirectory = env.config.applicationSupportDirectory;
    if (const auto problem = dataDirectoryProblem(dataDirectory)) {
        const std::string why =
            context.text("the data directory " + dataDirectory.string() + " cannot be used (" + *problem +
                             "): a recording could not be kept. Make it a folder you can write in, or set "
                             "XDG_DATA_HOME to "
                             "one",
                         "de gegevensmap " + dataDirectory.string() + " is onbruikbaar (" + *problem +
                             "): een opname kan er niet worden bewaard. Maak er een map van waarin je mag "
                             "schrijven, of zet "
                             "XDG_DATA_HOME op zo'n map");
        printer.event("data_directory", Json{{"usable", false}, {"reason", *problem}}, "");
        printer.error(why);
        return exitFailure;
    }

    const auto manifest = env.recoveryStore->load();
    if (manifest) {
        Json fields{{"recordingId", manifest->recordingId},
                    {"stage", std::string(toRaw(manifest->stage))},
                    {"startedAt", CoreJSON::formatDate(manifest->startedAt)},
                    {"isPaused", manifest->isPaused},
                    {"totalPausedMs", manifest->totalPausedMs}};
        if (manifest->meetingName) {
            fields["meetingName"] = *manifest->meetingName;
        }
        if (manifest->lastSequence) {
            fields["lastSequence"] = *manifest->lastSequence;
        }
        printer.event("pending_recording", fields,
                      context.text("Left behind: recording ", "Achtergebleven: opname ") +
                          manifest->recordingId + " (" + std::string(toRaw(manifest->stage)) +
                          context.text(", started ", ", begonnen ") +
                          CoreJSON::formatDate(manifest->startedAt) +
                          (manifest->meetingName ? ", \"" + *manifest->meetingName + "\"" : std::string()) +
                          context.text("). Finish it with: kavelo-cli recover",
                                       "). Rond haar af met: kavelo-cli recover"));
    } else {
        printer.event("pending_recording", Json{{"recordingId", nullptr}},
                      context.text("No recording left behind.", "Geen opname achtergebleven."));
    }

    bool any = false;
    for (const auto& recordingId : env.chunkStore->storedRecordings()) {
        const auto sequences = env.chunkStore->storedSequences(recordingId);
        if (sequences.empty()) {
            continue;
        }
        any = true;
        printer.event("stored_chunks",
                      Json{{"recordingId", recordingId},
                           {"count", sequences.size()},
                           {"first", sequences.front()},
                           {"last", sequences.back()}},
                      context.text("Kept on disk: ", "Op schijf bewaard: ") + recordingId + ": " +
                          std::to_string(sequences.size()) + context.text(" chunk(s), ", " stuk(ken), ") +
                          std::to_string(sequences.front()) + context.text(" to ", " t/m ") +
                          std::to_string(sequences.back()));
    }
    if (!any) {
        printer.say(context.text("No chunks kept on disk.", "Geen stukken op schijf bewaard."));
    }
    if (const auto free = env.chunkStore->availableDiskBytes()) {
        printer.event("disk", Json{{"availableBytes", *free}},
                      context.text("Free in the data directory: ", "Vrij in de gegevensmap: ") +
                          std::to_string(*free / (1024 * 1024)) + " MiB");
    }
    return 0;
}

} // namespace kavelo::cli
