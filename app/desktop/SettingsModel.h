#pragma once

#include "core/support/KeyValueStore.h"

#include <QDBusVariant>
#include <QObject>
#include <QString>
#include <QStringList>

#include <filesystem>
#include <memory>

namespace kavelo {

// The application settings as the settings screen binds them, kept in the preferences. Flags whose
// default is true are read with a presence test, so an unset flag reads as its default. "system" as theme
// follows the desktop's colour scheme, read from the settings portal where there is one.
class SettingsModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString appLanguage READ appLanguage WRITE setAppLanguage NOTIFY appLanguageChanged)
    Q_PROPERTY(
        QString outputLanguage READ outputLanguage WRITE setOutputLanguage NOTIFY outputLanguageChanged)
    Q_PROPERTY(QString theme READ theme WRITE setTheme NOTIFY themeChanged)
    Q_PROPERTY(bool effectiveDark READ effectiveDark NOTIFY effectiveDarkChanged)
    Q_PROPERTY(bool defaultAttachWord READ defaultAttachWord WRITE setDefaultAttachWord NOTIFY
                   defaultAttachWordChanged)
    Q_PROPERTY(bool defaultIncludeTranscription READ defaultIncludeTranscription WRITE
                   setDefaultIncludeTranscription NOTIFY defaultIncludeTranscriptionChanged)
    Q_PROPERTY(bool liveIndicator READ liveIndicator WRITE setLiveIndicator NOTIFY liveIndicatorChanged)
    Q_PROPERTY(bool openAtLogin READ openAtLogin WRITE setOpenAtLogin NOTIFY openAtLoginChanged)
    Q_PROPERTY(bool notifyDetected READ notifyDetected WRITE setNotifyDetected NOTIFY notifyDetectedChanged)
    Q_PROPERTY(bool notifyStarted READ notifyStarted WRITE setNotifyStarted NOTIFY notifyStartedChanged)
    Q_PROPERTY(QStringList mutedApps READ mutedApps WRITE setMutedApps NOTIFY mutedAppsChanged)
    Q_PROPERTY(int windowWidth READ windowWidth WRITE setWindowWidth NOTIFY windowWidthChanged)
    Q_PROPERTY(int windowHeight READ windowHeight WRITE setWindowHeight NOTIFY windowHeightChanged)

  public:
    // `autostartFile` is where open-at-login keeps its desktop entry; empty leaves the desktop alone (the
    // practice world never registers itself).
    SettingsModel(std::shared_ptr<KeyValueStore> preferences, std::filesystem::path autostartFile,
                  QObject* parent = nullptr);

    QString appLanguage() const;
    void setAppLanguage(const QString& code);
    QString outputLanguage() const;
    void setOutputLanguage(const QString& code);
    QString theme() const;
    void setTheme(const QString& theme);
    bool effectiveDark() const;
    bool defaultAttachWord() const;
    void setDefaultAttachWord(bool on);
    bool defaultIncludeTranscription() const;
    void setDefaultIncludeTranscription(bool on);
    bool liveIndicator() const;
    void setLiveIndicator(bool on);
    bool openAtLogin() const;
    void setOpenAtLogin(bool on);
    bool notifyDetected() const;
    void setNotifyDetected(bool on);
    bool notifyStarted() const;
    void setNotifyStarted(bool on);
    QStringList mutedApps() const;
    void setMutedApps(const QStringList& apps);
    int windowWidth() const;
    void setWindowWidth(int width);
    int windowHeight() const;
    void setWindowHeight(int height);

    // The desktop's colour scheme changed (or was read for the first time).
    void setDesktopPrefersDark(bool dark);

  signals:
    void appLanguageChanged();
    void outputLanguageChanged();
    void themeChanged();
    void effectiveDarkChanged();
    void defaultAttachWordChanged();
    void defaultIncludeTranscriptionChanged();
    void liveIndicatorChanged();
    void openAtLoginChanged();
    void notifyDetectedChanged();
    void notifyStartedChanged();
    void mutedAppsChanged();
    void windowWidthChanged();
    void windowHeightChanged();

  private slots:
    void onPortalSettingChanged(const QString& group, const QString& key, const QDBusVariant& value);

  private:
    bool flag(const char* key, bool fallback) const;
    bool setFlag(const char* key, bool value);
    void writeAutostart(bool on);
    void readDesktopColourScheme();

    std::shared_ptr<KeyValueStore> preferences_;
    std::filesystem::path autostartFile_;
    bool desktopPrefersDark_ = false;
};

} // namespace kavelo
