#include "app/capture/SystemAudioTargets.h"

#include <algorithm>
#include <cctype>

namespace kavelo {

namespace {
bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    if (prefix.empty() || text.size() < prefix.size()) {
        return false;
    }
    return std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    });
}
} // namespace

const std::vector<SystemAudioTargets::MeetingApp>& SystemAudioTargets::meetingApps() {
    // Linux builds of these report themselves as, for example, "teams-for-linux", "ZOOM VoiceEngine",
    // "slack" and "webex"/"CiscoCollabHost".
    static const std::vector<MeetingApp> apps{
        {"teams", "Microsoft Teams"}, {"zoom", "Zoom"},         {"slack", "Slack"},
        {"webex", "Webex"},           {"ciscocollab", "Webex"},
    };
    return apps;
}

std::vector<AudioDevice> SystemAudioTargets::sources(const PulseServerSnapshot& snapshot) {
    std::vector<AudioDevice> list{
        AudioDevice{"system", "Alle systeemaudio", AudioDevice::Kind::systemAudioSource, true, std::nullopt}};
    for (const auto& app : meetingApps()) {
        bool listedByName =
            std::any_of(list.begin(), list.end(), [&](const auto& d) { return d.name == app.name; });
        if (listedByName || streamOf(snapshot, app.prefix) == nullptr) {
            continue;
        }
        list.push_back(AudioDevice{"app:" + std::string(app.prefix), std::string(app.name),
                                   AudioDevice::Kind::systemAudioSource, false, std::nullopt});
    }
    return list;
}

std::optional<std::string> SystemAudioTargets::appPrefix(const std::optional<std::string>& targetId) {
    if (!targetId || targetId->size() <= 4 || targetId->compare(0, 4, "app:") != 0) {
        return std::nullopt;
    }
    return targetId->substr(4);
}

bool SystemAudioTargets::streamBelongsTo(const PulseServerSnapshot::Stream& stream, std::string_view prefix) {
    return startsWithIgnoringCase(stream.applicationName, prefix) ||
           startsWithIgnoringCase(stream.processBinary, prefix) ||
           startsWithIgnoringCase(stream.applicationId, prefix);
}

const PulseServerSnapshot::Stream* SystemAudioTargets::streamOf(const PulseServerSnapshot& snapshot,
                                                                std::string_view prefix) {
    const PulseServerSnapshot::Stream* best = nullptr;
    for (const auto& stream : snapshot.sinkInputs) {
        if (!streamBelongsTo(stream, prefix)) {
            continue;
        }
        if (best == nullptr || (best->corked && !stream.corked) ||
            (best->corked == stream.corked && stream.index > best->index)) {
            best = &stream;
        }
    }
    return best;
}

} // namespace kavelo
