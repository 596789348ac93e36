#pragma once

#include "core/support/RawEnum.h"

#include <array>
#include <string_view>
#include <utility>

namespace kavelo {

// What the backend says it is doing with a recording, after its many spellings have been mapped.
enum class RecordingStatusPhase { recording, transcribing, generating, delivered, failed };

template <> struct RawEnumTraits<RecordingStatusPhase> {
    static constexpr std::array<std::pair<RecordingStatusPhase, std::string_view>, 5> table{{
        {RecordingStatusPhase::recording, "recording"},
        {RecordingStatusPhase::transcribing, "transcribing"},
        {RecordingStatusPhase::generating, "generating"},
        {RecordingStatusPhase::delivered, "delivered"},
        {RecordingStatusPhase::failed, "failed"},
    }};
};

} // namespace kavelo
