#include "core/mock/MockTipsBackend.h"

#include "core/backend/APIError.h"

namespace kavelo {

MockTipsBackend::MockTipsBackend(LanguageGetter language) : language_(std::move(language)) {}

TipsResponse MockTipsBackend::fetch() {
    {
        std::lock_guard lock(mutex_);
        if (failuresLeft_ > 0) {
            --failuresLeft_;
            throw APIError::network("The Internet connection appears to be offline.");
        }
    }
    const bool english = language_ && language_() == "en";
    TipsResponse response;
    response.segment = "starter";
    response.meetingCount = 1;
    if (english) {
        response.tips = {
            {"t1", "Add the names of the speakers before you send: the report then says who said what.", 1},
            {"t2",
             "Test your microphone and the sound of your computer under Settings, Audio, before an "
             "important meeting.",
             2},
            {"t3", "A recording can be paused: nothing is recorded until you resume.", 3},
            {"t4", "Lost your connection? Keep recording: the audio is sent once you are back online.", 4},
        };
    } else {
        response.tips = {
            {"t1",
             "Voeg de namen van de sprekers toe voordat je verstuurt: dan staat in het verslag wie wat zei.",
             1},
            {"t2",
             "Test je microfoon en het geluid van je computer bij Instellingen, Audio, voor een belangrijke "
             "vergadering.",
             2},
            {"t3", "Een opname kun je pauzeren: er wordt niets opgenomen tot je verdergaat.", 3},
            {"t4",
             "Verbinding kwijt? Neem gewoon door: het geluid wordt verstuurd zodra je weer online bent.", 4},
        };
    }
    return response;
}

void MockTipsBackend::setFailuresBeforeSuccess(int n) {
    std::lock_guard lock(mutex_);
    failuresLeft_ = n;
}

} // namespace kavelo
