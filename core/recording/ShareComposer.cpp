#include "core/recording/ShareComposer.h"

#include "core/recording/EmailValidator.h"

#include <algorithm>

namespace kavelo {

ShareComposer::ShareComposer(std::string_view hostEmail)
    : hostEmail_(EmailValidator::normalized(hostEmail)) {}

bool ShareComposer::isKnown(std::string_view email) const {
    auto normalized = EmailValidator::normalized(email);
    if (normalized == hostEmail_) {
        return true;
    }
    return std::any_of(recipients.begin(), recipients.end(),
                       [&](const Recipient& r) { return EmailValidator::normalized(r.email) == normalized; });
}

bool ShareComposer::addRecipient(std::string_view email, std::optional<std::string> name) {
    if (!EmailValidator::isValid(email) || isKnown(email)) {
        return false;
    }
    recipients.push_back(Recipient{EmailValidator::normalized(email), std::move(name)});
    return true;
}

void ShareComposer::removeRecipient(std::size_t index) {
    if (index < recipients.size()) {
        recipients.erase(recipients.begin() + static_cast<std::ptrdiff_t>(index));
    }
}

std::vector<std::string> ShareComposer::pendingTokens() const {
    std::vector<std::string> tokens;
    std::string_view text = pendingInput;
    std::size_t start = 0;
    while (start <= text.size()) {
        auto end = text.find_first_of(",; \n\t", start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        if (end > start) {
            tokens.emplace_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return tokens;
}

std::vector<std::string> ShareComposer::pendingValidEmails() const {
    std::vector<std::string> emails;
    for (const auto& token : pendingTokens()) {
        auto normalized = EmailValidator::normalized(token);
        if (EmailValidator::isValid(token) && !isKnown(normalized) &&
            std::find(emails.begin(), emails.end(), normalized) == emails.end()) {
            emails.push_back(std::move(normalized));
        }
    }
    return emails;
}

bool ShareComposer::pendingHasInvalidToken() const {
    auto tokens = pendingTokens();
    return std::any_of(tokens.begin(), tokens.end(),
                       [](const auto& t) { return !EmailValidator::isValid(t); });
}

ShareComposer::PendingInputResult ShareComposer::commitPendingInputForSend() {
    if (pendingTokens().empty()) {
        return PendingInputResult::empty();
    }
    if (pendingHasInvalidToken()) {
        return PendingInputResult::invalid();
    }
    auto emails = pendingValidEmails();
    for (auto& email : emails) {
        recipients.push_back(Recipient{std::move(email), std::nullopt});
    }
    pendingInput.clear();
    if (emails.empty()) {
        return PendingInputResult::empty();
    }
    return PendingInputResult::committed(static_cast<int>(emails.size()));
}

int ShareComposer::externalCount() const {
    return static_cast<int>(recipients.size() + pendingValidEmails().size());
}

std::string ShareComposer::ctaLabel() const {
    int external = externalCount();
    if (external == 0) {
        return "Verstuur alleen naar mij";
    }
    return "Verstuur naar " + std::to_string(external + 1) + " personen";
}

std::vector<FinalizeRecipient> ShareComposer::recipientsPayload() const {
    std::vector<FinalizeRecipient> payload;
    payload.reserve(recipients.size());
    for (const auto& r : recipients) {
        payload.push_back(FinalizeRecipient{r.email, r.name});
    }
    return payload;
}

} // namespace kavelo
