#pragma once

#include <QObject>
#include <QString>

#include <memory>

namespace kavelo {

class AppEnvironment;
class CaptureStreamMonitor;
class LinuxMeetingReadings;
class MeetingDetectionService;

// Puts the meeting detector on this desktop: the audio server's recording streams, the processes and the
// front window feed its readings, and Qt's timers run its delays. Only the real world has meetings to
// notice; in the mock world, or without an audio server, it stays off and says so once.
class MeetingDetection : public QObject {
    Q_OBJECT

  public:
    explicit MeetingDetection(AppEnvironment& env, QObject* parent = nullptr);
    ~MeetingDetection() override;

    bool available() const { return service_ != nullptr; }
    void start();
    void stop();
    void setRecordingActive(bool active);
    void setAudioTestActive(bool active);
    void mute(const QString& appName);
    void forgetPrompts();
    // Input devices came or went.
    void deviceListChanged();

  signals:
    void meetingDetected(const QString& appName);

  private:
    std::shared_ptr<CaptureStreamMonitor> monitor_;
    std::shared_ptr<LinuxMeetingReadings> readings_;
    std::shared_ptr<MeetingDetectionService> service_;
    bool running_ = false;
};

} // namespace kavelo
