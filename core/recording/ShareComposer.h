#pragma once

#include "core/backend/FinalizeRecipient.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavelo {

// Who gets the report: the recipients that the user confirmed, and the half-typed text in the input box.
// A plain value behind the share screen; the coordinator keeps one and changes it under its lock.
//
// An address is "known" when its normalised form equals the host's address or that of a recipient.
class ShareComposer {
  public:
    struct Recipient {
        std::string email; // normalised
        std::optional<std::string> name;
        bool operator==(const Recipient&) const = default;
    };

    // The answer of commitPendingInputForSend.
    struct PendingInputResult {
        enum class Kind { committed, invalid, empty };
        Kind kind = Kind::empty;
        int added = 0; // for committed only

        static PendingInputResult committed(int added) { return {Kind::committed, added}; }
        static PendingInputResult invalid() { return {Kind::invalid, 0}; }
        static PendingInputResult empty() { return {Kind::empty, 0}; }
        bool operator==(const PendingInputResult&) const = default;
    };

    explicit ShareComposer(std::string_view hostEmail = {});

    [[nodiscard]] const std::string& hostEmail() const { return hostEmail_; }

    std::vector<Recipient> recipients;
    std::string pendingInput;
    bool includeTranscription = true;
    bool attachmentWord = false; // a Word attachment is wanted
    std::string meetingName;     // as edited on the record screen

    // True when the address is valid and new, and was appended.
    bool addRecipient(std::string_view email, std::optional<std::string> name = std::nullopt);
    void removeRecipient(std::size_t index);

    // pendingInput split at commas, semicolons, blanks, line feeds and tabs, without empty pieces.
    [[nodiscard]] std::vector<std::string> pendingTokens() const;
    // The valid, unknown addresses among the tokens, normalised, each once, in order.
    [[nodiscard]] std::vector<std::string> pendingValidEmails() const;
    [[nodiscard]] bool pendingHasInvalidToken() const;
    // A last press of "send" commits what was typed; only a press with nothing new to commit goes on.
    PendingInputResult commitPendingInputForSend();

    // Recipients plus what the input box would add, so that the count runs ahead of the commit.
    [[nodiscard]] int externalCount() const;
    [[nodiscard]] std::string ctaLabel() const;
    [[nodiscard]] std::vector<FinalizeRecipient> recipientsPayload() const;

    [[nodiscard]] bool isKnown(std::string_view email) const;

    bool operator==(const ShareComposer&) const = default;

  private:
    std::string hostEmail_;
};

} // namespace kavelo
