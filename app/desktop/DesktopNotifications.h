#pragma once

#include <QObject>
#include <QString>

namespace kavelo {

// Notifications through the desktop's notification server (org.freedesktop.Notifications on the session
// bus), each with an action that brings the window to the front. Without a server the program goes on
// without notifications and says so once in the log.
class DesktopNotifications : public QObject {
    Q_OBJECT

  public:
    explicit DesktopNotifications(QObject* parent = nullptr);

    // `openLabel` is the text of the action that opens Kavely.
    void post(const QString& title, const QString& body, const QString& openLabel);
    // The offer to record a meeting, with its three answers as actions; a later offer replaces it.
    void postMeetingPrompt(const QString& title, const QString& body, const QString& recordLabel,
                           const QString& ignoreLabel, const QString& muteLabel);

  signals:
    void openRequested();
    // "record", "ignore" or "mute", for the meeting offer shown last.
    void meetingAnswered(const QString& answer);

  private slots:
    void onActionInvoked(uint id, const QString& action);

  private:
    void send(const QString& title, const QString& body, const QStringList& actions, uint replaces,
              bool meetingPrompt);

    bool unavailableReported_ = false;
    uint meetingPromptId_ = 0;
};

} // namespace kavelo
