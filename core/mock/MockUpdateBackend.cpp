#include "core/mock/MockUpdateBackend.h"

#include "core/backend/APIError.h"

namespace kavelo {

MockUpdateBackend::MockUpdateBackend(std::string currentVersion, LanguageGetter language)
    : currentVersion_(std::move(currentVersion)), language_(std::move(language)) {
    policy_.minimumSupportedVersion = currentVersion_;
    policy_.latestVersion = currentVersion_;
    policy_.downloadURL = downloadURL;
}

UpdatePolicy MockUpdateBackend::fetchPolicy() {
    failIfAsked();
    std::lock_guard lock(mutex_);
    return policy_;
}

std::vector<ReleaseNote> MockUpdateBackend::fetchReleaseNotes() {
    failIfAsked();
    const bool english = language_ && language_() == "en";
    ReleaseNote note;
    note.version = currentVersion_;
    if (english) {
        note.title = "Kavely for Linux";
        note.body = "- Record meetings from your microphone and the sound of your computer together\n"
                    "- Recordings continue after a lost connection and upload when you are back online\n"
                    "- Choose who receives the report before you send it";
    } else {
        note.title = "Kavely voor Linux";
        note.body =
            "- Neem vergaderingen op met je microfoon en het geluid van je computer tegelijk\n"
            "- Opnamen gaan door als de verbinding wegvalt en worden verstuurd zodra je weer online bent\n"
            "- Kies wie het verslag ontvangt voordat je het verstuurt";
    }
    return {note};
}

void MockUpdateBackend::setPolicy(UpdatePolicy policy) {
    std::lock_guard lock(mutex_);
    policy_ = std::move(policy);
}

void MockUpdateBackend::setFailuresBeforeSuccess(int n) {
    std::lock_guard lock(mutex_);
    failuresLeft_ = n;
}

void MockUpdateBackend::failIfAsked() {
    {
        std::lock_guard lock(mutex_);
        if (failuresLeft_ <= 0) {
            return;
        }
        --failuresLeft_;
    }
    throw APIError::network("The Internet connection appears to be offline.");
}

} // namespace kavelo
