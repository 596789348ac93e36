#pragma once

#include <QString>
#include <QVariantMap>

namespace kavelo {

class AppModel;

// Puts the model into a given state without the services behind it, so the screens can be looked at in
// every state they have (an update waiting, offline, an expired session) on any machine. Used by the
// screen gallery; the program itself never calls it.
class AppModelPreview {
  public:
    // Sets each named field ("isSignedIn", "profile", "phase", "elapsedSeconds", "microphones",
    // "systemSources", "selectedMicrophoneId", "selectedSystemSourceId", "systemAudioMode",
    // "dashboardActivity", "tips", "tipsEnabled", "updateStatus", "online", "sessionExpired",
    // "startBlocker", "meetingName") and tells the screens. Returns the names it does not know.
    static QStringList apply(AppModel& model, const QVariantMap& fields);
};

} // namespace kavelo
