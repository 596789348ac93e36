#pragma once

#include "core/support/RawEnum.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavelo {

// The list of speakers that the user reviews after a stop: the host, names the backend recognised, and names
// typed or pasted by hand. A plain value: the coordinator keeps one, changes it under its lock, and readers
// get a copy.
//
// Names compare case-insensitively, as lowercase texts; they are trimmed and cut to maxNameLength characters.
struct SpeakerListModel {
    static constexpr std::size_t maxNames = 50;
    static constexpr std::size_t maxNameLength = 100;
    static constexpr int maxSpeakerCount = 32;
    static constexpr int exactCountThreshold = 10; // up to here a count is "exact", above it a "hint"

    struct Speaker {
        enum class Source { host, mapping, manual, recent };
        std::string name;
        bool isHost = false;
        Source source = Source::manual;
        bool operator==(const Speaker&) const = default;
    };

    // The pair sent as speaker_count and speaker_count_mode.
    struct CountPayload {
        int count = 0;
        std::string mode; // "exact" or "hint"
        bool operator==(const CountPayload&) const = default;
    };

    std::vector<Speaker> speakers;
    std::optional<int> manualSpeakerCount;

    bool operator==(const SpeakerListModel&) const = default;

    // Puts the signed-in user at the front as host. Only spaces and tabs are trimmed here.
    void prefillHost(const std::optional<std::string>& name);
    void mergeMappingResults(const std::vector<std::string>& names);
    // True when a row was appended; false for an empty name, a full list or a duplicate.
    bool addManual(std::string_view name);
    // Splits at commas, semicolons and line feeds; gives the number of rows appended.
    int addFromPaste(std::string_view text);
    void rename(std::size_t index, std::string_view name);
    void remove(std::size_t index);
    void setManualCount(std::optional<int> count);
    // The plus and minus buttons; step is positive or negative.
    void bumpCount(int step);

    [[nodiscard]] int namedCount() const { return static_cast<int>(speakers.size()); }
    [[nodiscard]] std::optional<int> effectiveSpeakerCount() const;
    [[nodiscard]] std::optional<int> displaySpeakerCount() const;
    [[nodiscard]] std::optional<CountPayload> speakerCountPayload() const;
    [[nodiscard]] std::optional<std::vector<std::string>> participantsPayload() const;
    [[nodiscard]] static std::string continueCTA() { return "Verder"; }

  private:
    bool appendIfNew(std::string_view trimmedName, Speaker::Source source);
    [[nodiscard]] std::optional<std::size_t> indexOf(std::string_view name) const;
};

template <> struct RawEnumTraits<SpeakerListModel::Speaker::Source> {
    using Source = SpeakerListModel::Speaker::Source;
    static constexpr std::array<std::pair<Source, std::string_view>, 4> table{{{Source::host, "host"},
                                                                               {Source::mapping, "mapping"},
                                                                               {Source::manual, "manual"},
                                                                               {Source::recent, "recent"}}};
};

} // namespace kavelo
