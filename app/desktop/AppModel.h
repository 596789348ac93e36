#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

#include "app/shell/DashboardPreferences.h"
#include "app/shell/OnboardingFlow.h"
#include "app/shell/SessionHealthCheck.h"
#include "core/accounts/AuthSession.h"
#include "core/support/Task.h"
#include "core/workspace/DashboardActivityItem.h"
#include "core/workspace/DashboardTip.h"

#include <QTimer>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavelo {

class AppEnvironment;
class AudioLevels;
class MeetingDetection;

// The one observable object the screens read: a main-thread copy of the coordinator's state, the session,
// the device lists, dashboard activity, tips and updates. Screens bind to its properties and call its
// invokables; every decision that needs no Qt lives in a plain class beside it. Core callbacks arrive on
// other threads and reach it only through queued calls.
class AppModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isSignedIn READ isSignedIn NOTIFY isSignedInChanged)
    Q_PROPERTY(QString onboardingStep READ onboardingStep NOTIFY onboardingStepChanged)
    // userId, email, fullName, organizationName, role; empty without a profile.
    Q_PROPERTY(QVariantMap profile READ profile NOTIFY profileChanged)
    // The coordinator's phase as its raw value ("idle", "recording", ...).
    Q_PROPERTY(QString phase READ phase NOTIFY phaseChanged)
    // Active seconds of the running recording, refreshed on every tick.
    Q_PROPERTY(int elapsedSeconds READ elapsedSeconds NOTIFY elapsedSecondsChanged)
    Q_PROPERTY(QStringList warnings READ warnings NOTIFY warningsChanged)
    Q_PROPERTY(QString processingLine READ processingLine NOTIFY processingLineChanged)
    Q_PROPERTY(QString startBlocker READ startBlocker NOTIFY startBlockerChanged)
    Q_PROPERTY(int speakerRevision READ speakerRevision NOTIFY speakerRevisionChanged)
    Q_PROPERTY(bool isMappingInFlight READ isMappingInFlight NOTIFY isMappingInFlightChanged)
    Q_PROPERTY(QVariantMap successSummary READ successSummary NOTIFY successSummaryChanged)
    Q_PROPERTY(QVariantList missingChunks READ missingChunks NOTIFY missingChunksChanged)
    // Lists of {id, name, isDefault}.
    Q_PROPERTY(QVariantList microphones READ microphones NOTIFY devicesChanged)
    Q_PROPERTY(QVariantList outputs READ outputs NOTIFY devicesChanged)
    Q_PROPERTY(QVariantList systemSources READ systemSources NOTIFY devicesChanged)
    Q_PROPERTY(QString selectedMicrophoneId READ selectedMicrophoneId WRITE setSelectedMicrophoneId NOTIFY
                   selectedMicrophoneIdChanged)
    Q_PROPERTY(QString selectedOutputId READ selectedOutputId NOTIFY selectedOutputIdChanged)
    // "off", "system" or "app".
    Q_PROPERTY(
        QString systemAudioMode READ systemAudioMode WRITE setSystemAudioMode NOTIFY systemAudioModeChanged)
    Q_PROPERTY(QString selectedSystemSourceId READ selectedSystemSourceId WRITE setSelectedSystemSourceId
                   NOTIFY selectedSystemSourceIdChanged)
    Q_PROPERTY(QString micPermission READ micPermission NOTIFY permissionsChanged)
    Q_PROPERTY(QString systemAudioPermission READ systemAudioPermission NOTIFY permissionsChanged)
    Q_PROPERTY(QString audioCapturePermission READ audioCapturePermission NOTIFY permissionsChanged)
    Q_PROPERTY(QString meetingName READ meetingName WRITE setMeetingName NOTIFY meetingNameChanged)
    // {state: "unknown"|"upToDate"|"available"|"required", version, downloadUrl, notes (the latest
    // release's note, if the update host gives one)}.
    Q_PROPERTY(QVariantMap updateStatus READ updateStatus NOTIFY updateStatusChanged)
    // Lists of {version, title, body}.
    Q_PROPERTY(QVariantList unseenNotes READ unseenNotes NOTIFY unseenNotesChanged)
    // Lists of {id, body}: the window of tips the service chose for this run.
    Q_PROPERTY(QVariantList tips READ tips NOTIFY tipsChanged)
    Q_PROPERTY(bool tipsEnabled READ tipsEnabled WRITE setTipsEnabled NOTIFY tipsEnabledChanged)
    // Lists of {id, recordingId, meetingName, phase, submittedAt, deliveredAt (ISO 8601 or empty),
    // recipientCount (-1 when unknown), slow}, newest first.
    Q_PROPERTY(QVariantList dashboardActivity READ dashboardActivity NOTIFY dashboardActivityChanged)
    Q_PROPERTY(
        bool educationFirstRecordingPending READ educationFirstRecordingPending NOTIFY educationChanged)
    Q_PROPERTY(
        bool educationProcessingStatusPending READ educationProcessingStatusPending NOTIFY educationChanged)
    Q_PROPERTY(
        bool educationReportSettingsPending READ educationReportSettingsPending NOTIFY educationChanged)
    Q_PROPERTY(QString successRecordingId READ successRecordingId NOTIFY successRecordingIdChanged)
    Q_PROPERTY(QString detectedMeetingApp READ detectedMeetingApp NOTIFY detectedMeetingAppChanged)
    Q_PROPERTY(bool sessionExpired READ sessionExpired NOTIFY sessionExpiredChanged)
    // "home", "team", "settings" or empty; the main window consumes it and clears it.
    Q_PROPERTY(QString requestedSection READ requestedSection WRITE setRequestedSection NOTIFY
                   requestedSectionChanged)
    Q_PROPERTY(QString requestedSettingsSection READ requestedSettingsSection WRITE
                   setRequestedSettingsSection NOTIFY requestedSettingsSectionChanged)
    // The small always-on-top panel that shows a recording is running; it folds itself after a while.
    Q_PROPERTY(bool indicatorVisible READ indicatorVisible NOTIFY indicatorVisibleChanged)
    Q_PROPERTY(bool indicatorCollapsed READ indicatorCollapsed WRITE setIndicatorCollapsed NOTIFY
                   indicatorCollapsedChanged)
    // Whether the network is reachable as far as the desktop knows; true where nobody can tell.
    Q_PROPERTY(bool online READ online NOTIFY onlineChanged)
    Q_PROPERTY(bool canStartFromUI READ canStartFromUI NOTIFY derivedChanged)
    Q_PROPERTY(bool menuBarShowsRecording READ menuBarShowsRecording NOTIFY derivedChanged)
    Q_PROPERTY(bool callAudioUnavailable READ callAudioUnavailable NOTIFY derivedChanged)
    Q_PROPERTY(bool isRestrictedOrgMember READ isRestrictedOrgMember NOTIFY derivedChanged)
    Q_PROPERTY(QStringList visibleSidebarSections READ visibleSidebarSections NOTIFY derivedChanged)
    // True in mock mode: the screens say so, quietly.
    Q_PROPERTY(bool mockMode READ mockMode CONSTANT)

  public:
    // Reads a text of the language tables by key, in the user's language.
    using Texts = std::function<std::string(std::string_view key)>;

    AppModel(AppEnvironment& env, Texts texts, QObject* parent = nullptr);
    ~AppModel() override;
    // The meters: reset at each start, and their audio test closed before the recorder opens the devices.
    void setAudioLevels(AudioLevels* levels) { levels_ = levels; }
    // Runs while someone is signed in and no recording runs.
    void setMeetingDetection(MeetingDetection* detection) { detection_ = detection; }

    bool isSignedIn() const { return isSignedIn_; }
    QString onboardingStep() const { return onboardingStep_; }
    QVariantMap profile() const { return profile_; }
    QString phase() const { return phase_; }
    int elapsedSeconds() const { return elapsedSeconds_; }
    QStringList warnings() const { return warnings_; }
    QString processingLine() const { return processingLine_; }
    QString startBlocker() const { return startBlocker_; }
    int speakerRevision() const { return speakerRevision_; }
    bool isMappingInFlight() const { return isMappingInFlight_; }
    QVariantMap successSummary() const { return successSummary_; }
    QVariantList missingChunks() const { return missingChunks_; }
    QVariantList microphones() const { return microphones_; }
    QVariantList outputs() const { return outputs_; }
    QVariantList systemSources() const { return systemSources_; }
    QString selectedMicrophoneId() const { return selectedMicrophoneId_; }
    void setSelectedMicrophoneId(const QString& id);
    QString selectedOutputId() const { return selectedOutputId_; }
    QString systemAudioMode() const { return systemAudioMode_; }
    void setSystemAudioMode(const QString& mode);
    QString selectedSystemSourceId() const { return selectedSystemSourceId_; }
    void setSelectedSystemSourceId(const QString& id);
    QString micPermission() const { return micPermission_; }
    QString systemAudioPermission() const { return systemAudioPermission_; }
    QString audioCapturePermission() const { return audioCapturePermission_; }
    QString meetingName() const { return meetingName_; }
    void setMeetingName(const QString& name);
    QVariantMap updateStatus() const { return updateStatus_; }
    QVariantList unseenNotes() const { return unseenNotes_; }
    QVariantList tips() const { return tips_; }
    bool tipsEnabled() const { return tipsEnabled_; }
    void setTipsEnabled(bool enabled);
    QVariantList dashboardActivity() const { return dashboardActivity_; }
    bool educationFirstRecordingPending() const { return educationFirstRecordingPending_; }
    bool educationProcessingStatusPending() const { return educationProcessingStatusPending_; }
    bool educationReportSettingsPending() const { return educationReportSettingsPending_; }
    QString successRecordingId() const { return successRecordingId_; }
    QString detectedMeetingApp() const { return detectedMeetingApp_; }
    bool sessionExpired() const { return sessionExpired_; }
    QString requestedSection() const { return requestedSection_; }
    void setRequestedSection(const QString& section);
    QString requestedSettingsSection() const { return requestedSettingsSection_; }
    void setRequestedSettingsSection(const QString& section);
    bool indicatorVisible() const { return indicatorVisible_; }
    bool indicatorCollapsed() const { return indicatorCollapsed_; }
    void setIndicatorCollapsed(bool collapsed);
    bool online() const { return online_; }
    // The network came or went, as the desktop tells it.
    void setOnline(bool online);
    bool canStartFromUI() const;
    bool menuBarShowsRecording() const;
    bool callAudioUnavailable() const;
    bool isRestrictedOrgMember() const;
    QStringList visibleSidebarSections() const;
    bool mockMode() const;

    // The recording's controls; each hands the work to the coordinator off the main thread.
    Q_INVOKABLE void startRecording();
    Q_INVOKABLE void stopRecording();
    Q_INVOKABLE void pauseRecording();
    Q_INVOKABLE void resumeRecording();
    Q_INVOKABLE void signInWithPassword(const QString& email, const QString& password);
    Q_INVOKABLE void signOut();
    Q_INVOKABLE void refreshDevices();
    Q_INVOKABLE void reloadDashboardActivity();
    Q_INVOKABLE void loadTips();
    // Shows the cached tips at once; false when tips are on and nothing is cached yet.
    bool loadCachedTips();
    Q_INVOKABLE void markReleaseNotesSeen();
    // Opens the release's download address in the browser: the desktop's package manager or the user
    // installs it; the program never replaces itself.
    Q_INVOKABLE void openUpdateDownload();
    Q_INVOKABLE void onAppForeground();
    Q_INVOKABLE void checkSessionHealth();
    Q_INVOKABLE void requestSystemAudioPermission();
    // The questionnaire of a new account; an empty or unknown option skips the question.
    Q_INVOKABLE void completeReferralStep(const QString& option);
    Q_INVOKABLE void completeFitStep(const QString& option);
    Q_INVOKABLE void finishPostAuthOnboarding();
    Q_INVOKABLE void completeAudioSetup();
    Q_INVOKABLE void initializeDashboardEducation();
    Q_INVOKABLE void refreshDashboardEducation();
    // "first-recording", "processing-status" or "report-settings": the user has seen it.
    Q_INVOKABLE void completeEducation(const QString& mark);
    Q_INVOKABLE bool hasRecordedBefore() const;
    // The tip the dashboard shows when it appears; moves on by one each time.
    Q_INVOKABLE int nextTipCursor();
    // The answers to the offer to record a meeting that was noticed.
    Q_INVOKABLE void recordDetectedMeeting();
    Q_INVOKABLE void dismissDetectedMeeting();
    Q_INVOKABLE void muteDetectedMeeting();
    // A meeting application is in a call: offer to record it, unless something is already going on.
    void onMeetingDetected(const QString& appName);

  signals:
    void isSignedInChanged();
    void onboardingStepChanged();
    void profileChanged();
    void phaseChanged();
    void elapsedSecondsChanged();
    void warningsChanged();
    void processingLineChanged();
    void startBlockerChanged();
    void speakerRevisionChanged();
    void isMappingInFlightChanged();
    void successSummaryChanged();
    void missingChunksChanged();
    void devicesChanged();
    void selectedMicrophoneIdChanged();
    void selectedOutputIdChanged();
    void systemAudioModeChanged();
    void selectedSystemSourceIdChanged();
    void permissionsChanged();
    void meetingNameChanged();
    void updateStatusChanged();
    void unseenNotesChanged();
    void tipsChanged();
    void tipsEnabledChanged();
    void dashboardActivityChanged();
    void educationChanged();
    void successRecordingIdChanged();
    void detectedMeetingAppChanged();
    void sessionExpiredChanged();
    void requestedSectionChanged();
    void requestedSettingsSectionChanged();
    void indicatorVisibleChanged();
    void indicatorCollapsedChanged();
    void onlineChanged();
    void derivedChanged();
    // A recording failed to start or a sign-in failed: a text for the user, already in their language.
    void errorOccurred(const QString& message);
    // A password sign-in was refused; kind is the error's raw kind ("invalidCredentials", "network", ...),
    // which the sign-in screen words.
    void signInFailed(const QString& kind);
    // The offer to record a meeting: title and body in the user's language, and the labels of its three
    // answers.
    void meetingPromptWanted(const QString& title, const QString& body, const QString& recordLabel,
                             const QString& ignoreLabel, const QString& muteLabel);
    // A notification to show: title, body and the label of its action that opens the window.
    void notificationWanted(const QString& title, const QString& body, const QString& openLabel);

  private:
    // The screen gallery shows the screens in states the services would take minutes to reach.
    friend class AppModelPreview;

    // Runs `work` off the main thread; the model waits for every such task when it goes.
    void runInBackground(std::function<void()> work);
    void applyCoordinatorState(bool withPhase);
    void applySession();
    // The notifications that go with entering the current phase.
    void notifyPhase(bool wasRecording);
    // Runs `change` on the main thread with the model, unless the model went meanwhile.
    void onMain(std::function<void(AppModel&)> change);
    // After every sign-in, cold start included: permissions, the first-run step, devices, the profile,
    // updates and tips, and a recording an earlier run left behind.
    void postSignIn(const AuthSession& session);
    void setOnboardingStep(const QString& step);
    // The recording reached the server's hands: it goes on the dashboard and counts as recorded.
    void enterSuccess();
    void updateLiveIndicator();
    void updateUserMetadata(const char* key, const QString& value);
    // While a submitted recording is not delivered, its status is asked every few seconds.
    void ensureActivityPolling();
    void pollActivity();
    void setDashboardActivity(const std::vector<DashboardActivityItem>& items);
    void setTips(const std::vector<DashboardTip>& tips);
    // Reads the update verdict and the notes off the main thread; the model takes them on it.
    void checkForUpdates();
    std::optional<std::string> userId() const;
    OnboardingFlow::AudioPermissions permissions() const;

    AppEnvironment& env_;
    const Texts texts_;
    std::mutex tasksMutex_;
    std::vector<Task> tasks_; // guarded by tasksMutex_

    bool isSignedIn_ = false;
    QString onboardingStep_ = QStringLiteral("welcome");
    QVariantMap profile_;
    QString phase_ = QStringLiteral("signed_out");
    int elapsedSeconds_ = 0;
    QStringList warnings_;
    QString processingLine_;
    QString startBlocker_;
    int speakerRevision_ = 0;
    bool isMappingInFlight_ = false;
    QVariantMap successSummary_;
    QVariantList missingChunks_;
    QVariantList microphones_;
    QVariantList outputs_;
    QVariantList systemSources_;
    QString selectedMicrophoneId_;
    QString selectedOutputId_;
    QString systemAudioMode_ = QStringLiteral("system");
    QString selectedSystemSourceId_ = QStringLiteral("system");
    QString micPermission_ = QStringLiteral("notDetermined");
    QString systemAudioPermission_ = QStringLiteral("notDetermined");
    QString audioCapturePermission_ = QStringLiteral("granted");
    QString meetingName_;
    QVariantMap updateStatus_{{QStringLiteral("state"), QStringLiteral("unknown")}};
    QVariantList unseenNotes_;
    QVariantList tips_;
    bool tipsEnabled_ = true;
    QVariantList dashboardActivity_;
    bool educationFirstRecordingPending_ = false;
    bool educationProcessingStatusPending_ = false;
    bool educationReportSettingsPending_ = false;
    QString successRecordingId_;
    QString detectedMeetingApp_;
    bool sessionExpired_ = false;
    QString requestedSection_;
    QString requestedSettingsSection_;
    bool indicatorVisible_ = false;
    bool indicatorCollapsed_ = false;
    bool online_ = true;

    OnboardingFlow onboarding_;
    DashboardPreferences dashboardPreferences_;
    SessionHealthCheck sessionHealth_;
    QTimer indicatorCollapse_;
    QTimer activityPoll_;
    AudioLevels* levels_ = nullptr;
    MeetingDetection* detection_ = nullptr;
    bool activityPollRunning_ = false;
};

} // namespace kavelo
