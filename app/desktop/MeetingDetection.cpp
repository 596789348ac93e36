#include "app/desktop/MeetingDetection.h"

#include "app/shell/AppEnvironment.h"

#ifdef KAVELO_HAVE_CAPTURE
#include "app/capture/CaptureStreamMonitor.h"
#include "app/detection/EwmhWindowReader.h"
#include "app/detection/LinuxMeetingReadings.h"
#include "app/detection/MainThreadScheduler.h"
#include "app/detection/MeetingDetectionService.h"
#endif

#include <QMetaObject>
#include <QPointer>
#include <QTimer>

namespace kavelo {

#ifdef KAVELO_HAVE_CAPTURE
namespace {

// The detector's delays on the event loop. A handle may go from inside its own work: the timer is then
// only stopped and deleted later, never under its own feet.
class QtScheduler final : public MainThreadScheduler {
  public:
    std::unique_ptr<Handle> after(double seconds, std::function<void()> work) override {
        return schedule(seconds, std::move(work), true);
    }
    std::unique_ptr<Handle> every(double seconds, std::function<void()> work) override {
        return schedule(seconds, std::move(work), false);
    }

  private:
    class TimerHandle final : public Handle {
      public:
        explicit TimerHandle(QTimer* timer) : timer_(timer) {}
        ~TimerHandle() override { cancel(); }
        void cancel() override {
            if (timer_) {
                timer_->stop();
                timer_->deleteLater();
                timer_ = nullptr;
            }
        }

      private:
        QPointer<QTimer> timer_;
    };

    static std::unique_ptr<Handle> schedule(double seconds, std::function<void()> work, bool once) {
        auto* timer = new QTimer;
        timer->setSingleShot(once);
        timer->setInterval(static_cast<int>(seconds * 1000));
        QObject::connect(timer, &QTimer::timeout, timer, std::move(work));
        timer->start();
        return std::make_unique<TimerHandle>(timer);
    }
};

std::vector<LinuxMeetingReadings::CaptureClient>
clientsOf(const std::vector<CaptureStreamMonitor::Owner>& owners) {
    std::vector<LinuxMeetingReadings::CaptureClient> clients;
    clients.reserve(owners.size());
    for (const auto& owner : owners) {
        clients.push_back({owner.pid, owner.applicationName, owner.processBinary, owner.applicationId});
    }
    return clients;
}

} // namespace
#endif

MeetingDetection::MeetingDetection(AppEnvironment& env, QObject* parent) : QObject(parent) {
#ifdef KAVELO_HAVE_CAPTURE
    if (env.recorderKind != "linux") {
        env.logger->info("meeting detection is off: the mock world has no meetings to notice");
        return;
    }
    monitor_ = CaptureStreamMonitor::make();
    const bool wayland = qEnvironmentVariable("XDG_SESSION_TYPE") == QStringLiteral("wayland") ||
                         !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
    readings_ = std::make_shared<LinuxMeetingReadings>(EwmhWindowReader::connect(), wayland);
    MeetingDetectionService::Dependencies deps{readings_, std::make_shared<QtScheduler>(), env.clock,
                                               env.keyValueStore, env.logger};
    service_ = MeetingDetectionService::make(std::move(deps));
    service_->setOnMeetingDetected(
        [this](const std::string& name) { emit meetingDetected(QString::fromStdString(name)); });
#else
    env.logger->info("meeting detection is off: this build has no audio capture");
#endif
}

MeetingDetection::~MeetingDetection() {
    stop();
}

void MeetingDetection::start() {
#ifdef KAVELO_HAVE_CAPTURE
    if (!service_ || running_) {
        return;
    }
    running_ = true;
    QPointer<MeetingDetection> self(this);
    const bool heard = monitor_->start([self](const std::vector<CaptureStreamMonitor::Owner>& owners) {
        QMetaObject::invokeMethod(
            self,
            [self, clients = clientsOf(owners)] {
                if (self && self->running_) {
                    self->readings_->updateCaptureClients(clients);
                }
            },
            Qt::QueuedConnection);
    });
    if (!heard) {
        qInfo("kavely: the audio server does not report recording streams; meetings are noticed by the slow "
              "scan only");
    }
    readings_->updateCaptureClients(clientsOf(monitor_->current()));
    service_->start();
#endif
}

void MeetingDetection::stop() {
#ifdef KAVELO_HAVE_CAPTURE
    if (!service_ || !running_) {
        return;
    }
    running_ = false;
    service_->stop();
    monitor_->stop();
#endif
}

void MeetingDetection::setRecordingActive(bool active) {
#ifdef KAVELO_HAVE_CAPTURE
    if (service_) {
        service_->setRecordingActive(active);
    }
#else
    (void)active;
#endif
}

void MeetingDetection::setAudioTestActive(bool active) {
#ifdef KAVELO_HAVE_CAPTURE
    if (service_) {
        service_->setAudioTestActive(active);
    }
#else
    (void)active;
#endif
}

void MeetingDetection::mute(const QString& appName) {
#ifdef KAVELO_HAVE_CAPTURE
    if (service_) {
        service_->mute(appName.toStdString());
    }
#else
    (void)appName;
#endif
}

void MeetingDetection::forgetPrompts() {
#ifdef KAVELO_HAVE_CAPTURE
    if (service_) {
        service_->forgetPrompts();
    }
#endif
}

void MeetingDetection::deviceListChanged() {
#ifdef KAVELO_HAVE_CAPTURE
    if (readings_ && running_) {
        readings_->deviceListChanged();
    }
#endif
}

} // namespace kavelo
