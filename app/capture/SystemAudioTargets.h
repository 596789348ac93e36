#pragma once

#include "app/capture/PulseServerSnapshot.h"
#include "core/recording/AudioDevice.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavelo {

// What "system audio" can mean on the fallback path, decided from a snapshot of the audio server: all
// that the default output plays, or the streams of one known meeting application.
//
// A meeting application is recognised by what its playback streams say of themselves: the application
// name, process binary or application id, compared case-insensitively by prefix. The source id is
// "app:" + that prefix.
class SystemAudioTargets {
  public:
    struct MeetingApp {
        std::string_view prefix;
        std::string_view name;
    };
    static const std::vector<MeetingApp>& meetingApps();

    // "system" ("Alle systeemaudio", the default) first, then each meeting application that has a
    // playback stream now, once, in the table's order.
    static std::vector<AudioDevice> sources(const PulseServerSnapshot& snapshot);

    // The prefix of an "app:<prefix>" target id; none for any other id.
    static std::optional<std::string> appPrefix(const std::optional<std::string>& targetId);
    static bool streamBelongsTo(const PulseServerSnapshot::Stream& stream, std::string_view prefix);
    // The stream to follow for an application: a playing one before a corked one, the newest first.
    static const PulseServerSnapshot::Stream* streamOf(const PulseServerSnapshot& snapshot,
                                                       std::string_view prefix);
};

} // namespace kavelo
