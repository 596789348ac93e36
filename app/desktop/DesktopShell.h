#pragma once

#include "app/shell/AppEnvironment.h"
#include "app/shell/KaveloCopy.h"

#include <QObject>
#include <QUrl>

#include <memory>
#include <mutex>

class QQmlApplicationEngine;

namespace kavelo {

class AppModel;
class AudioDeviceListWatcher;
class AudioLevels;
class MeetingDetection;
class CopyObject;
class SettingsModel;

// Composes the desktop program: the environment (live or mock), the language tables, the model and the
// QML engine that shows the screens. The program and the gallery test build the same thing through it.
class DesktopShell : public QObject {
    Q_OBJECT

  public:
    DesktopShell(AppEnvironment::Mode mode, AppEnvironment::Options options, QObject* parent = nullptr);
    ~DesktopShell() override;

    AppEnvironment& environment() { return *env_; }
    AppModel& model() { return *model_; }
    AudioLevels& levels() { return *levels_; }
    CopyObject& copy() { return *copy_; }
    QQmlApplicationEngine& engine() { return *engine_; }

    // Loads a screen from the screens module, e.g. "Main.qml"; false when it could not be created.
    bool load(const QString& screenFile);

  private:
    struct LevelSlot;
    // The recorder's level reports reach the meters through the slot, filled once the meters exist.
    static AppEnvironment::Options withLevelTap(AppEnvironment::Options options,
                                                std::shared_ptr<LevelSlot> slot);

    std::shared_ptr<LevelSlot> levelSlot_;
    std::unique_ptr<AppEnvironment> env_;
    std::unique_ptr<KaveloCopy> texts_;
    std::unique_ptr<QQmlApplicationEngine> engine_;
    AppModel* model_ = nullptr; // owned by this QObject
    CopyObject* copy_ = nullptr;
    SettingsModel* settings_ = nullptr;
    AudioLevels* levels_ = nullptr;
    MeetingDetection* detection_ = nullptr;

    std::shared_ptr<AudioDeviceListWatcher> deviceWatcher_; // only where real devices are listed
};

} // namespace kavelo
