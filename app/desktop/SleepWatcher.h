#pragma once

#include <QObject>

namespace kavelo {

// Tells when the computer wakes from sleep, from the login manager's PrepareForSleep signal on the system
// bus. A token may have expired while the lid was shut, so a wake is a moment to check the session. Without
// a system bus or a login manager (containers, some minimal desktops) nothing is ever reported, and the
// log says so once.
class SleepWatcher : public QObject {
    Q_OBJECT

  public:
    explicit SleepWatcher(QObject* parent = nullptr);
    bool listening() const { return listening_; }

  signals:
    void woke();

  private slots:
    void prepareForSleep(bool goingToSleep);

  private:
    bool listening_ = false;
};

} // namespace kavelo
