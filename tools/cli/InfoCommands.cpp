#include "tools/cli/InfoCommands.h"

#include "core/support/CoreJSON.h"
#include "tools/cli/CliContext.h"

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
                  "Mode: " + context.describeWorld() +
                      "\nData directory: " + env.config.applicationSupportDirectory.string());

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
                      "Left behind: recording " + manifest->recordingId + " (" +
                          std::string(toRaw(manifest->stage)) + ", started " +
                          CoreJSON::formatDate(manifest->startedAt) +
                          (manifest->meetingName ? ", \"" + *manifest->meetingName + "\"" : std::string()) +
                          "). Finish it with: kavelo-cli recover");
    } else {
        printer.event("pending_recording", Json{{"recordingId", nullptr}}, "No recording left behind.");
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
                      "Kept on disk: " + recordingId + ": " + std::to_string(sequences.size()) +
                          " chunk(s), " + std::to_string(sequences.front()) + " to " +
                          std::to_string(sequences.back()));
    }
    if (!any) {
        printer.say("No chunks kept on disk.");
    }
    if (const auto free = env.chunkStore->availableDiskBytes()) {
        printer.event("disk", Json{{"availableBytes", *free}},
                      "Free in the data directory: " + std::to_string(*free / (1024 * 1024)) + " MiB");
    }
    return 0;
}

} // namespace kavelo::cli
