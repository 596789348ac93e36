#pragma once

#include <QDBusContext>
#include <QObject>
#include <QString>

namespace kavelo {

class AppModel;

// The program's scripting surface on the session bus: nl.kavely.Kavely at /nl/kavely/Kavely, interface
// nl.kavely.Kavely1. Start, Stop, Pause, Resume and Show; Phase and ElapsedSeconds as properties that
// announce their changes with PropertiesChanged.
class AutomationService : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "nl.kavely.Kavely1")
    Q_PROPERTY(QString Phase READ phase SCRIPTABLE true)
    Q_PROPERTY(int ElapsedSeconds READ elapsedSeconds SCRIPTABLE true)

  public:
    static constexpr const char* kService = "nl.kavely.Kavely";
    static constexpr const char* kPath = "/nl/kavely/Kavely";
    static constexpr const char* kInterface = "nl.kavely.Kavely1";

    explicit AutomationService(AppModel& model, QObject* parent = nullptr);
    // Registers on the session bus; false (said once in the log) without a bus or when the name is taken.
    bool registerOnSessionBus();

    QString phase() const;
    int elapsedSeconds() const;

  public slots:
    Q_SCRIPTABLE void Start();
    Q_SCRIPTABLE void Stop();
    Q_SCRIPTABLE void Pause();
    Q_SCRIPTABLE void Resume();
    Q_SCRIPTABLE void Show();

  signals:
    void showRequested();

  private:
    void announce(const QString& property, const QVariant& value);
    // Refuses the call with a D-Bus error when `allowed` is false; true when it may go on.
    bool allow(bool allowed, const QString& why);

    AppModel& model_;
};

} // namespace kavelo
