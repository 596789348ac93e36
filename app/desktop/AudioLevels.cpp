#include "app/desktop/AudioLevels.h"

#include <QMetaObject>
#include <QPointer>

namespace kavelo {

AudioLevels::AudioLevels(std::shared_ptr<AudioTestEngines> engines, std::shared_ptr<Clock> clock,
                         QObject* parent)
    : QObject(parent), throttle_(clock, 1.0 / 12.0) {
    QPointer<AudioLevels> self(this);
    auto onMain = [self](std::function<void()> work) {
        QMetaObject::invokeMethod(
            self,
            [self, work = std::move(work)] {
                if (self) {
                    work();
                }
            },
            Qt::QueuedConnection);
    };
    model_.setChangeHandler([onMain, self] { onMain([self] { emit self->levelsChanged(); }); });
    AudioTestController::Dependencies deps;
    deps.engines = std::move(engines);
    deps.clock = std::move(clock);
    deps.postToMain = onMain;
    controller_ = AudioTestController::make(std::move(deps));
    controller_->setStateHandler([this](const AudioTestState& state) {
        test_ = state;
        emit testChanged();
    });
}

AudioLevels::~AudioLevels() {
    controller_->setStateHandler({});
    controller_->stop();
    controller_->waitUntilIdle();
}

QVariantList AudioLevels::waveform() const {
    QVariantList list;
    for (const double value : model_.waveform()) {
        list.append(value);
    }
    return list;
}

void AudioLevels::recorderLevel(double microphone, double system) {
    // Twelve a second reach the screen; the rest are dropped here, on the capture thread, before any
    // work is queued.
    if (throttle_.admit()) {
        model_.publish(microphone, system);
    }
}

void AudioLevels::resetRecording() {
    model_.reset();
}

void AudioLevels::startTest(const QString& microphoneId, const QString& mode, const QString& sourceId,
                            const QString& outputId, bool allowFallback) {
    AudioTestRequest request;
    request.microphoneId = microphoneId.toStdString();
    request.systemAudioMode = fromRaw<SystemAudioMode>(mode.toStdString()).value_or(SystemAudioMode::system);
    if (request.systemAudioMode == SystemAudioMode::app && !sourceId.isEmpty()) {
        request.systemSourceId = sourceId.toStdString();
    }
    request.outputId = outputId.toStdString();
    request.allowFallback = allowFallback;
    controller_->start(request);
}

void AudioLevels::stopTest() {
    controller_->stop();
}

void AudioLevels::playTestTone() {
    controller_->playTestTone();
}

void AudioLevels::waitUntilTestIdle() {
    controller_->waitUntilIdle();
}

} // namespace kavelo
