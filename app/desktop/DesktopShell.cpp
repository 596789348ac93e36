#include "app/desktop/DesktopShell.h"

#include "app/audiotest/MockAudioTestEngines.h"
#include "app/desktop/AppModel.h"
#include "app/desktop/AudioLevels.h"
#include "app/desktop/CopyObject.h"
#include "app/desktop/LevelTapRecorder.h"
#include "app/desktop/MeetingDetection.h"
#include "app/desktop/NetworkReachability.h"
#include "app/desktop/SettingsModel.h"
#include "app/desktop/SleepWatcher.h"
#ifdef KAVELO_HAVE_CAPTURE
#include "app/audiotest/LinuxAudioTestEngines.h"
#include "app/capture/AudioDeviceListWatcher.h"
#include "app/capture/LinuxCaptureBackend.h"
#endif

#include <QFile>
#include <QPointer>
#include <QQmlApplicationEngine>
#include <QQmlContext>

namespace kavelo {

struct DesktopShell::LevelSlot {
    std::mutex mutex;
    AudioLevels* target = nullptr; // guarded by mutex
};

AppEnvironment::Options DesktopShell::withLevelTap(AppEnvironment::Options options,
                                                   std::shared_ptr<LevelSlot> slot) {
    auto decorate = std::move(options.decorateRecorder);
    options.decorateRecorder =
        [decorate, slot](std::shared_ptr<NativeRecorder> inner) -> std::shared_ptr<NativeRecorder> {
        auto tapped =
            std::make_shared<LevelTapRecorder>(std::move(inner), [slot](double microphone, double system) {
                std::lock_guard lock(slot->mutex);
                if (slot->target) {
                    slot->target->recorderLevel(microphone, system);
                }
            });
        return decorate ? decorate(tapped) : tapped;
    };
    return options;
}

DesktopShell::DesktopShell(AppEnvironment::Mode mode, AppEnvironment::Options options, QObject* parent)
    : QObject(parent), levelSlot_(std::make_shared<LevelSlot>()),
      env_(std::make_unique<AppEnvironment>(mode, withLevelTap(std::move(options), levelSlot_))),
      engine_(std::make_unique<QQmlApplicationEngine>()) {

    texts_ = std::make_unique<KaveloCopy>(
        env_->keyValueStore, [](const std::string& name) -> std::optional<std::string> {
            QFile file(QStringLiteral(":/copy/") + QString::fromStdString(name));
            if (!file.open(QIODevice::ReadOnly)) {
                return std::nullopt;
            }
            return file.read(KaveloCopy::kMaxFileBytes + 1).toStdString();
        });
    copy_ = new CopyObject({[texts = texts_.get()](std::string_view key) { return texts->text(key); },
                            [texts = texts_.get()] { return texts->language(); },
                            [texts = texts_.get()](const std::string& code) { texts->setLanguage(code); }},
                           this);
    std::shared_ptr<AudioTestEngines> testEngines;
#ifdef KAVELO_HAVE_CAPTURE
    if (env_->recorderKind == "linux") {
        testEngines = std::make_shared<LinuxAudioTestEngines>(
            std::make_shared<LinuxCaptureBackend>(env_->clock), processEnvironment());
    }
#endif
    if (!testEngines) {
        testEngines = std::make_shared<MockAudioTestEngines>(env_->clock);
    }
    levels_ = new AudioLevels(testEngines, env_->clock, this);
    {
        std::lock_guard lock(levelSlot_->mutex);
        levelSlot_->target = levels_;
    }
    model_ = new AppModel(
        *env_, [texts = texts_.get()](std::string_view key) { return texts->text(key); }, this);
    // Only the real program registers itself to open at login; the practice world leaves the desktop alone.
    std::filesystem::path autostart;
    if (mode == AppEnvironment::Mode::live) {
        const auto config = qEnvironmentVariable("XDG_CONFIG_HOME");
        const auto base = config.startsWith(QLatin1Char('/'))
                              ? config.toStdString()
                              : qEnvironmentVariable("HOME").toStdString() + "/.config";
        autostart = std::filesystem::path(base) / "autostart" / "nl.kavely.Kavely.desktop";
    }
    settings_ = new SettingsModel(env_->keyValueStore, autostart, this);
    auto* network = new NetworkReachability(this);
    model_->setOnline(network->online());
    connect(network, &NetworkReachability::onlineChanged, model_, &AppModel::setOnline);
    connect(new SleepWatcher(this), &SleepWatcher::woke, model_, &AppModel::checkSessionHealth);
    auto* context = engine_->rootContext();
    model_->setAudioLevels(levels_);
    detection_ = new MeetingDetection(*env_, this);
    model_->setMeetingDetection(detection_);
    connect(detection_, &MeetingDetection::meetingDetected, model_, &AppModel::onMeetingDetected);
    // The audio test's own microphone stream is not a call.
    connect(levels_, &AudioLevels::testChanged, detection_,
            [this] { detection_->setAudioTestActive(levels_->testMicActive()); });
    if (model_->isSignedIn()) {
        detection_->start();
    }
#ifdef KAVELO_HAVE_CAPTURE
    // A headset plugged in or a default changed: the lists follow without a restart.
    if (env_->recorderKind == "linux") {
        deviceWatcher_ = AudioDeviceListWatcher::make(env_->clock);
        QPointer<AppModel> model(model_);
        QPointer<MeetingDetection> detection(detection_);
        const bool heard = deviceWatcher_->start([model, detection] {
            QMetaObject::invokeMethod(
                model,
                [model, detection] {
                    if (model) {
                        model->refreshDevices();
                    }
                    if (detection) {
                        detection->deviceListChanged();
                    }
                },
                Qt::QueuedConnection);
        });
        if (!heard) {
            env_->logger->warn(
                "the audio server sends no device notices; the device lists refresh when opened");
        }
    }
#endif
    context->setContextProperty(QStringLiteral("settings"), settings_);
    context->setContextProperty(QStringLiteral("levels"), levels_);
    context->setContextProperty(QStringLiteral("app"), model_);
    context->setContextProperty(QStringLiteral("copy"), copy_);
    // Setting the context property again, to the same object, re-evaluates every binding that reads a
    // text through it: that is how a change of language reaches every screen at once.
    connect(copy_, &CopyObject::languageChanged, this,
            [this] { engine_->rootContext()->setContextProperty(QStringLiteral("copy"), copy_); });
}

DesktopShell::~DesktopShell() {
    if (deviceWatcher_) {
        deviceWatcher_->stop();
        deviceWatcher_.reset();
    }
    // The screens go before the objects they bind to.
    engine_.reset();
    // The model's background work uses the environment: it ends before the environment goes.
    delete model_;
    model_ = nullptr;
    delete detection_;
    detection_ = nullptr;
    {
        std::lock_guard lock(levelSlot_->mutex);
        levelSlot_->target = nullptr;
    }
    delete levels_;
    levels_ = nullptr;
}

bool DesktopShell::load(const QString& screenFile) {
    const auto before = engine_->rootObjects().size();
    engine_->load(QUrl(QStringLiteral("qrc:/Kavely/Screens/") + screenFile));
    return engine_->rootObjects().size() > before;
}

} // namespace kavelo
