#include "app/desktop/SettingsModel.h"

#include "core/support/AtomicFile.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>

#include <algorithm>

namespace kavelo {
namespace {

constexpr int kMinWindowWidth = 720;
constexpr int kMinWindowHeight = 480;
constexpr int kMaxWindowSide = 16384;

// The portal wraps the value in one or two variants, depending on its version.
QVariant unwrap(QVariant value) {
    while (value.canConvert<QDBusVariant>() && value.userType() == qMetaTypeId<QDBusVariant>()) {
        value = value.value<QDBusVariant>().variant();
    }
    return value;
}

} // namespace

SettingsModel::SettingsModel(std::shared_ptr<KeyValueStore> preferences, std::filesystem::path autostartFile,
                             QObject* parent)
    : QObject(parent), preferences_(std::move(preferences)), autostartFile_(std::move(autostartFile)) {
    // The first start registers the program to open at login; the user turns it off in the settings.
    if (!preferences_->boolean("kavelo_open_at_login")) {
        setOpenAtLogin(true);
    }
    readDesktopColourScheme();
}

bool SettingsModel::flag(const char* key, bool fallback) const {
    return preferences_->boolean(key).value_or(fallback);
}

bool SettingsModel::setFlag(const char* key, bool value) {
    if (preferences_->boolean(key) == value) {
        return false;
    }
    preferences_->setBool(value, key);
    return true;
}

QString SettingsModel::appLanguage() const {
    return QString::fromStdString(preferences_->string("kavelo_app_language").value_or("nl"));
}
void SettingsModel::setAppLanguage(const QString& code) {
    if (code != appLanguage() && (code == QStringLiteral("nl") || code == QStringLiteral("en"))) {
        preferences_->setString(code.toStdString(), "kavelo_app_language");
        emit appLanguageChanged();
    }
}

QString SettingsModel::outputLanguage() const {
    return QString::fromStdString(preferences_->string("kavelo_output_language").value_or("nl"));
}
void SettingsModel::setOutputLanguage(const QString& code) {
    if (code != outputLanguage() && (code == QStringLiteral("nl") || code == QStringLiteral("en"))) {
        preferences_->setString(code.toStdString(), "kavelo_output_language");
        emit outputLanguageChanged();
    }
}

QString SettingsModel::theme() const {
    const auto stored = QString::fromStdString(preferences_->string("kavelo_theme").value_or("system"));
    return stored == QStringLiteral("light") || stored == QStringLiteral("dark") ? stored
                                                                                 : QStringLiteral("system");
}
void SettingsModel::setTheme(const QString& value) {
    const bool wasDark = effectiveDark();
    if (value != theme()) {
        preferences_->setString(value.toStdString(), "kavelo_theme");
        emit themeChanged();
    }
    if (wasDark != effectiveDark()) {
        emit effectiveDarkChanged();
    }
}

bool SettingsModel::effectiveDark() const {
    const auto chosen = theme();
    return chosen == QStringLiteral("dark") || (chosen == QStringLiteral("system") && desktopPrefersDark_);
}

void SettingsModel::setDesktopPrefersDark(bool dark) {
    const bool wasDark = effectiveDark();
    desktopPrefersDark_ = dark;
    if (wasDark != effectiveDark()) {
        emit effectiveDarkChanged();
    }
}

bool SettingsModel::defaultAttachWord() const {
    return flag("kavelo_default_attach_word", false);
}
void SettingsModel::setDefaultAttachWord(bool on) {
    if (setFlag("kavelo_default_attach_word", on)) {
        emit defaultAttachWordChanged();
    }
}
bool SettingsModel::defaultIncludeTranscription() const {
    return flag("kavelo_default_include_transcription", true);
}
void SettingsModel::setDefaultIncludeTranscription(bool on) {
    if (setFlag("kavelo_default_include_transcription", on)) {
        emit defaultIncludeTranscriptionChanged();
    }
}
bool SettingsModel::liveIndicator() const {
    return flag("kavelo_live_indicator", true);
}
void SettingsModel::setLiveIndicator(bool on) {
    if (setFlag("kavelo_live_indicator", on)) {
        emit liveIndicatorChanged();
    }
}
bool SettingsModel::openAtLogin() const {
    return flag("kavelo_open_at_login", true);
}
void SettingsModel::setOpenAtLogin(bool on) {
    const bool changed = setFlag("kavelo_open_at_login", on);
    writeAutostart(on);
    if (changed) {
        emit openAtLoginChanged();
    }
}
bool SettingsModel::notifyDetected() const {
    return flag("kavelo_notify_detected", true);
}
void SettingsModel::setNotifyDetected(bool on) {
    if (setFlag("kavelo_notify_detected", on)) {
        emit notifyDetectedChanged();
    }
}
bool SettingsModel::notifyStarted() const {
    return flag("kavelo_notify_started", true);
}
void SettingsModel::setNotifyStarted(bool on) {
    if (setFlag("kavelo_notify_started", on)) {
        emit notifyStartedChanged();
    }
}

QStringList SettingsModel::mutedApps() const {
    const auto joined = QString::fromStdString(preferences_->string("kavelo_muted_apps").value_or(""));
    QStringList apps;
    for (const auto& name : joined.split(QStringLiteral(", "), Qt::SkipEmptyParts)) {
        apps << name.trimmed();
    }
    return apps;
}
void SettingsModel::setMutedApps(const QStringList& apps) {
    QStringList clean;
    for (const auto& name : apps) {
        // A comma would split the name on the next read.
        const auto trimmed = QString(name).replace(QLatin1Char(','), QLatin1Char(' ')).trimmed().left(200);
        if (!trimmed.isEmpty() && !clean.contains(trimmed)) {
            clean << trimmed;
        }
    }
    if (clean == mutedApps()) {
        return;
    }
    preferences_->setString(clean.join(QStringLiteral(", ")).toStdString(), "kavelo_muted_apps");
    emit mutedAppsChanged();
}

int SettingsModel::windowWidth() const {
    const auto stored = preferences_->string("kavelo_window_width");
    return std::clamp(stored ? QString::fromStdString(*stored).toInt() : 1100, kMinWindowWidth,
                      kMaxWindowSide);
}
void SettingsModel::setWindowWidth(int width) {
    width = std::clamp(width, kMinWindowWidth, kMaxWindowSide);
    if (width != windowWidth()) {
        preferences_->setString(std::to_string(width), "kavelo_window_width");
        emit windowWidthChanged();
    }
}
int SettingsModel::windowHeight() const {
    const auto stored = preferences_->string("kavelo_window_height");
    return std::clamp(stored ? QString::fromStdString(*stored).toInt() : 720, kMinWindowHeight,
                      kMaxWindowSide);
}
void SettingsModel::setWindowHeight(int height) {
    height = std::clamp(height, kMinWindowHeight, kMaxWindowSide);
    if (height != windowHeight()) {
        preferences_->setString(std::to_string(height), "kavelo_window_height");
        emit windowHeightChanged();
    }
}

void SettingsModel::writeAutostart(bool on) {
    if (autostartFile_.empty()) {
        return;
    }
    try {
        if (on) {
            createPrivateDirectories(autostartFile_.parent_path(), 0755);
            writeFileAtomically(
                autostartFile_,
                bytesFromString("[Desktop Entry]\nType=Application\nName=Kavely\nExec=kavely\n"
                                "Icon=nl.kavely.Kavely\nX-GNOME-Autostart-enabled=true\n"),
                0644);
        } else {
            std::error_code ignored;
            std::filesystem::remove(autostartFile_, ignored);
        }
    } catch (const std::exception& error) {
        qWarning("[Kavely] login item change failed: %s", error.what());
    }
}

void SettingsModel::readDesktopColourScheme() {
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return;
    }
    const auto service = QStringLiteral("org.freedesktop.portal.Desktop");
    const auto path = QStringLiteral("/org/freedesktop/portal/desktop");
    const auto interface = QStringLiteral("org.freedesktop.portal.Settings");
    auto call = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Read"));
    call << QStringLiteral("org.freedesktop.appearance") << QStringLiteral("color-scheme");
    // Asked without waiting: a desktop without the portal must not hold up the window.
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 2000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* finished) {
        finished->deleteLater();
        const QDBusPendingReply<QVariant> reply = *finished;
        if (reply.isError()) {
            qInfo("kavely: no desktop settings portal (%s); the \"system\" theme is light",
                  qPrintable(reply.error().name()));
            return;
        }
        setDesktopPrefersDark(unwrap(reply.value()).toUInt() == 1);
    });
    bus.connect(service, path, interface, QStringLiteral("SettingChanged"), this,
                SLOT(onPortalSettingChanged(QString, QString, QDBusVariant)));
}

void SettingsModel::onPortalSettingChanged(const QString& group, const QString& key,
                                           const QDBusVariant& value) {
    if (group == QStringLiteral("org.freedesktop.appearance") && key == QStringLiteral("color-scheme")) {
        setDesktopPrefersDark(unwrap(value.variant()).toUInt() == 1);
    }
}

} // namespace kavelo
