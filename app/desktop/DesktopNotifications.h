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

  signals:
    void openRequested();

  private slots:
    void onActionInvoked(uint id, const QString& action);

  private:
    bool unavailableReported_ = false;
};

} // namespace kavelo
