#include "app/shell/OnboardingFlow.h"

#include <chrono>

namespace kavelo {

namespace {

constexpr auto kQuestionnairePending = "kavelo_questionnaire_pending";
constexpr auto kOnboardingSeen = "kavelo_onboarding_seen";
constexpr auto kAudioSetupDone = "kavelo_audio_setup_done";
// A provider's account this young was made by this very sign-in.
constexpr auto kNewAccountAge = std::chrono::seconds(300);

} // namespace

OnboardingFlow::OnboardingFlow(std::shared_ptr<KeyValueStore> store) : store_(std::move(store)) {}

std::string OnboardingFlow::userKey(std::string_view base, std::string_view userId) {
    return std::string(base) + ":" + std::string(userId);
}

bool OnboardingFlow::userFlag(std::string_view base, const std::string& userId) const {
    return store_->boolean(userKey(base, userId)).value_or(false);
}

bool OnboardingFlow::rememberUser(const std::string& userId) {
    if (store_->string("kavelo_last_user_id") == userId) {
        return false;
    }
    store_->setString(userId, "kavelo_last_user_id");
    return true;
}

std::optional<std::string> OnboardingFlow::stepAfterSignIn(const std::string& userId,
                                                           const AudioPermissions& granted) const {
    const bool audioSetupNeeded = granted.microphone != PermissionState::granted ||
                                  granted.systemAudio != PermissionState::granted ||
                                  granted.audioCapture == PermissionState::denied;
    if (audioSetupNeeded && !store_->boolean(kAudioSetupDone).value_or(false)) {
        return "permissions";
    }
    if (userFlag(kQuestionnairePending, userId) && !userFlag(kOnboardingSeen, userId)) {
        return "referral";
    }
    return std::nullopt;
}

void OnboardingFlow::passwordSignIn(const std::string& userId) {
    store_->setBool(false, userKey(kQuestionnairePending, userId));
    store_->setBool(true, userKey(kOnboardingSeen, userId));
}

bool OnboardingFlow::providerSignIn(const AuthUser& user, TimePoint now) {
    bool pending = true;
    if (user.createdAt) {
        pending = now - *user.createdAt <= kNewAccountAge;
    }
    if (user.workProfile || userFlag(kOnboardingSeen, user.id)) {
        pending = false;
    }
    store_->setBool(pending, userKey(kQuestionnairePending, user.id));
    if (!pending) {
        store_->setBool(true, userKey(kOnboardingSeen, user.id));
    }
    return pending;
}

std::string OnboardingFlow::finishPostAuth(const std::string& userId, const AudioPermissions& granted) {
    store_->setBool(true, userKey(kOnboardingSeen, userId));
    store_->setBool(false, userKey(kQuestionnairePending, userId));
    if (!store_->string("kavelo_output_language")) {
        store_->setString("nl", "kavelo_output_language");
    }
    const bool permissionsMissing =
        granted.microphone != PermissionState::granted || granted.systemAudio != PermissionState::granted;
    return permissionsMissing && !store_->boolean(kAudioSetupDone).value_or(false) ? "permissions"
                                                                                   : "welcome";
}

std::string OnboardingFlow::completeAudioSetup(const std::string& userId) {
    store_->setBool(true, kAudioSetupDone);
    return userFlag(kQuestionnairePending, userId) ? "referral" : "welcome";
}

} // namespace kavelo
