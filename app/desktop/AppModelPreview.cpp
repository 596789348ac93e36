#include "app/desktop/AppModelPreview.h"

#include "app/desktop/AppModel.h"

namespace kavelo {

QStringList AppModelPreview::apply(AppModel& model, const QVariantMap& fields) {
    QStringList unknown;
    for (auto it = fields.cbegin(); it != fields.cend(); ++it) {
        const auto& name = it.key();
        const auto& value = it.value();
        if (name == QLatin1String("isSignedIn")) {
            model.isSignedIn_ = value.toBool();
            emit model.isSignedInChanged();
        } else if (name == QLatin1String("profile")) {
            model.profile_ = value.toMap();
            emit model.profileChanged();
        } else if (name == QLatin1String("phase")) {
            model.phase_ = value.toString();
            emit model.phaseChanged();
        } else if (name == QLatin1String("elapsedSeconds")) {
            model.elapsedSeconds_ = value.toInt();
            emit model.elapsedSecondsChanged();
        } else if (name == QLatin1String("microphones")) {
            model.microphones_ = value.toList();
            emit model.devicesChanged();
        } else if (name == QLatin1String("systemSources")) {
            model.systemSources_ = value.toList();
            emit model.devicesChanged();
        } else if (name == QLatin1String("selectedMicrophoneId")) {
            model.setSelectedMicrophoneId(value.toString());
        } else if (name == QLatin1String("selectedSystemSourceId")) {
            model.setSelectedSystemSourceId(value.toString());
        } else if (name == QLatin1String("systemAudioMode")) {
            model.setSystemAudioMode(value.toString());
        } else if (name == QLatin1String("meetingName")) {
            model.setMeetingName(value.toString());
        } else if (name == QLatin1String("dashboardActivity")) {
            model.dashboardActivity_ = value.toList();
            emit model.dashboardActivityChanged();
        } else if (name == QLatin1String("tips")) {
            model.tips_ = value.toList();
            emit model.tipsChanged();
        } else if (name == QLatin1String("tipsEnabled")) {
            model.tipsEnabled_ = value.toBool();
            emit model.tipsEnabledChanged();
        } else if (name == QLatin1String("updateStatus")) {
            model.updateStatus_ = value.toMap();
            emit model.updateStatusChanged();
        } else if (name == QLatin1String("online")) {
            model.online_ = value.toBool();
            emit model.onlineChanged();
        } else if (name == QLatin1String("sessionExpired")) {
            model.sessionExpired_ = value.toBool();
            emit model.sessionExpiredChanged();
        } else if (name == QLatin1String("startBlocker")) {
            model.startBlocker_ = value.toString();
            emit model.startBlockerChanged();
        } else {
            unknown.append(name);
            continue;
        }
    }
    emit model.derivedChanged();
    return unknown;
}

} // namespace kavelo
