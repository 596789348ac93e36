#pragma once

#include "app/audiotest/AudioLevelsModel.h"
#include "app/audiotest/AudioTestController.h"
#include "app/audiotest/LevelThrottle.h"

#include <QObject>
#include <QVariantList>

#include <memory>

namespace kavelo {

// The meters the screens show, apart from the model so that a level update redraws only them: the levels
// of a running recording (throttled to 12 updates a second before anything reaches the main thread), and
// the audio test that lets a user see their microphone and system sound move before they record.
class AudioLevels : public QObject {
    Q_OBJECT
    Q_PROPERTY(double micLevel READ micLevel NOTIFY levelsChanged)
    Q_PROPERTY(double systemLevel READ systemLevel NOTIFY levelsChanged)
    Q_PROPERTY(QVariantList waveform READ waveform NOTIFY levelsChanged)
    Q_PROPERTY(double testMicLevel READ testMicLevel NOTIFY testChanged)
    Q_PROPERTY(double testSystemLevel READ testSystemLevel NOTIFY testChanged)
    Q_PROPERTY(bool testMicActive READ testMicActive NOTIFY testChanged)
    Q_PROPERTY(bool testSystemActive READ testSystemActive NOTIFY testChanged)
    Q_PROPERTY(bool playingTestSound READ playingTestSound NOTIFY testChanged)

  public:
    AudioLevels(std::shared_ptr<AudioTestEngines> engines, std::shared_ptr<Clock> clock,
                QObject* parent = nullptr);
    ~AudioLevels() override;

    double micLevel() const { return model_.micLevel(); }
    double systemLevel() const { return model_.systemLevel(); }
    QVariantList waveform() const;
    double testMicLevel() const { return test_.micLevel; }
    double testSystemLevel() const { return test_.systemLevel; }
    bool testMicActive() const { return test_.micActive; }
    bool testSystemActive() const { return test_.systemProbeActive; }
    bool playingTestSound() const { return test_.playingTestSound; }

    // A level report of the running recording, from the capture thread.
    void recorderLevel(double microphone, double system);
    // Back to silence: the start of every recording.
    void resetRecording();

    // mode: "off", "system" or "app"; the dashboard passes allowFallback false.
    Q_INVOKABLE void startTest(const QString& microphoneId, const QString& mode, const QString& sourceId,
                               const QString& outputId, bool allowFallback);
    Q_INVOKABLE void stopTest();
    Q_INVOKABLE void playTestTone();
    // Before a recording opens the devices: every test stream is closed when this returns. Not on the main
    // thread.
    void waitUntilTestIdle();

  signals:
    void levelsChanged();
    void testChanged();

  private:
    AudioLevelsModel model_;
    LevelThrottle throttle_;
    AudioTestState test_;
    std::shared_ptr<AudioTestController> controller_;
};

} // namespace kavelo
