#pragma once

#include "core/accounts/AuthUser.h"
#include "core/recording/PermissionState.h"
#include "core/support/KeyValueStore.h"
#include "core/support/Time.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kavelo {

// Which step of the signed-out and first-run flow a user sees, and the per-user flags behind it. The steps
// are raw names the screens switch on: "welcome", "permissions", "referral", "fit", "ready", "audioTest".
// Flags that belong to one account are stored under "<base>:<user id>", so a second account on the same
// computer gets its own questionnaire.
class OnboardingFlow {
  public:
    struct AudioPermissions {
        PermissionState microphone = PermissionState::notDetermined;
        PermissionState systemAudio = PermissionState::notDetermined;
        PermissionState audioCapture = PermissionState::granted;
    };

    explicit OnboardingFlow(std::shared_ptr<KeyValueStore> store);

    static std::string userKey(std::string_view base, std::string_view userId);

    // True when this user is not the one who signed in last; the new id is remembered. The caller then
    // forgets what belonged to the other account (recent names, hidden tips).
    bool rememberUser(const std::string& userId);
    // The step after a sign-in, or nothing to keep the current one.
    std::optional<std::string> stepAfterSignIn(const std::string& userId,
                                               const AudioPermissions& granted) const;
    // A sign-in with a password is a known account: no questionnaire.
    void passwordSignIn(const std::string& userId);
    // An account made through a provider a moment ago gets the questionnaire, unless the provider already
    // told us the user's work; returns whether it is pending.
    bool providerSignIn(const AuthUser& user, TimePoint now);
    std::string finishPostAuth(const std::string& userId, const AudioPermissions& granted);
    std::string completeAudioSetup(const std::string& userId);

  private:
    bool userFlag(std::string_view base, const std::string& userId) const;

    const std::shared_ptr<KeyValueStore> store_;
};

} // namespace kavelo
