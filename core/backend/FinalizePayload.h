#pragma once

#include "core/backend/DiagnosticsPayload.h"
#include "core/backend/FinalizeRecipient.h"
#include "core/support/CoreJSON.h"

#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// The body of finalize-recording: the request for the report. Keys on the wire are the snake_case forms of
// the field names; the diagnostics inside keep their own camelCase keys.
struct FinalizePayload {
    std::string recordingId;                              // recording_id
    std::string userId;                                   // user_id
    std::string userEmail;                                // user_email
    std::string userName;                                 // user_name
    std::optional<std::string> meetingName;               // meeting_name
    std::vector<FinalizeRecipient> recipients;            // recipients
    std::optional<std::vector<std::string>> participants; // participants
    std::string uploadMode;                               // upload_mode
    bool includeTranscription = false;                    // include_transcription
    std::optional<bool> attachmentWord;                   // attachment_word
    std::optional<int> speakerCount;                      // speaker_count
    std::optional<std::string> speakerCountMode;          // speaker_count_mode
    std::string outputLanguage;                           // output_language
    DiagnosticsPayload diagnostics;                       // diagnostics
    std::optional<std::string> promptTemplateId;          // prompt_template_id

    [[nodiscard]] Json toJson() const;
    // Throws DecodingError.
    static FinalizePayload fromJson(const Json& json);
    bool operator==(const FinalizePayload&) const = default;
};

} // namespace kavelo
