#include "core/recording/RecordingStateMachine.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

using namespace kavelo;

namespace {

using P = RecordingPhase;
using E = RecordingEvent;

// The transition table written out row by row, independently of the code's switch. A row with `star`
// also writes warningReturn := recording.
struct Row {
    std::set<P> from; // empty means any phase
    E event;
    P to;
    bool star = false;
};

const std::set<P> kWarnings = {P::recordingDeviceWarning, P::recordingNoAudioWarning,
                               P::recordingOfflineBuffering, P::recordingRouteChanged};
const std::set<P> kRecordingAndWarnings = {P::recording, P::recordingDeviceWarning,
                                           P::recordingNoAudioWarning, P::recordingOfflineBuffering,
                                           P::recordingRouteChanged};
const std::set<P> kHeld = {P::pausedUser, P::interruptedSystem, P::resumeFailed};
const std::set<P> kBlockers = {P::permissionMicrophoneNeeded, P::permissionSystemAudioNeeded,
                               P::audioDeviceMissing, P::diskSpaceBlocked};

std::set<P> plus(std::set<P> a, std::initializer_list<P> more) {
    a.insert(more);
    return a;
}

const std::vector<Row>& rows() {
    static const std::vector<Row> table = {
        {{P::signedOut}, E::signedIn(), P::idle},
        {{}, E::signedOut(), P::signedOut},
        {{P::idle, P::preflightCheck, P::errorRecoverable}, E::updateRequiredDetected(), P::updateRequired},
        {{P::updateRequired}, E::updateResolved(), P::idle},

        {plus(kBlockers, {P::idle, P::errorRecoverable}), E::startRequested(), P::preflightCheck},
        {{P::preflightCheck}, E::preflightFailedMicPermission(), P::permissionMicrophoneNeeded},
        {{P::preflightCheck}, E::preflightFailedSystemAudioPermission(), P::permissionSystemAudioNeeded},
        {{P::preflightCheck}, E::preflightFailedDeviceMissing(), P::audioDeviceMissing},
        {{P::preflightCheck}, E::preflightFailedDiskSpace(), P::diskSpaceBlocked},
        {{P::preflightCheck}, E::preflightPassed(), P::initRecording},
        {kBlockers, E::permissionResolved(), P::idle},
        {{P::preflightCheck}, E::initFailed(true), P::errorRecoverable},
        {{P::preflightCheck}, E::initFailed(false), P::errorRecoverable},
        {{P::initRecording}, E::initFailed(true), P::errorRecoverable},
        {{P::initRecording}, E::initFailed(false), P::errorUnrecoverable},
        {{P::initRecording}, E::initSucceeded(), P::startingNativeRecorder},
        {{P::startingNativeRecorder}, E::nativeStartSucceeded(), P::recording},
        {{P::startingNativeRecorder}, E::nativeStartFailed(), P::errorRecoverable},

        {{P::recording}, E::deviceWarning(), P::recordingDeviceWarning, true},
        {{P::recordingNoAudioWarning, P::recordingRouteChanged},
         E::deviceWarning(),
         P::recordingDeviceWarning},
        {{P::recordingDeviceWarning}, E::deviceWarningCleared(), P::recording},
        {{P::recording}, E::noAudioWarning(), P::recordingNoAudioWarning, true},
        {{P::recordingDeviceWarning, P::recordingOfflineBuffering},
         E::noAudioWarning(),
         P::recordingNoAudioWarning},
        {{P::recordingNoAudioWarning}, E::audioReturned(), P::recording},
        {{P::recording}, E::wentOffline(), P::recordingOfflineBuffering, true},
        {{P::recordingOfflineBuffering}, E::backOnline(), P::recording},
        {{P::recording}, E::routeChanged(), P::recordingRouteChanged, true},
        {{P::recordingRouteChanged}, E::routeSettled(), P::recording},

        {plus(kRecordingAndWarnings, {P::stopConfirm}), E::userPaused(), P::pausedUser},
        {kRecordingAndWarnings, E::systemInterrupted(), P::interruptedSystem},
        {{P::pausedUser}, E::systemInterrupted(), P::pausedUser},
        {{P::interruptedSystem}, E::interruptionEnded(), P::resuming},
        {kHeld, E::userResumedRequested(), P::resuming},
        {{P::resuming}, E::resumeSucceeded(), P::recording},
        {{P::resuming}, E::resumeFailedTerminal(), P::resumeFailed},

        {kRecordingAndWarnings, E::stopTapped(), P::stopConfirm},
        {{P::stopConfirm}, E::stopCancelled(), P::recording},
        {plus(kHeld, {P::stopConfirm}), E::stopConfirmed(), P::stoppingNativeRecorder},
        {kHeld, E::stopWhilePaused(), P::stoppingNativeRecorder},
        {{P::stoppingNativeRecorder}, E::nativeStopped(7), P::processingMapping},

        {{P::processingMapping}, E::processingFinished(), P::speakerReview},
        {{P::speakerReview}, E::speakersConfirmed(), P::shareReview},
        {{P::shareReview}, E::backToSpeakers(), P::speakerReview},
        {{P::shareReview}, E::shareSubmitted(), P::waitingForUploads},
        {{P::waitingForUploads}, E::allChunksOnServer(), P::finalizing},
        {{P::waitingForUploads}, E::uploadsIncomplete(), P::errorRecoverable},
        {{P::finalizing}, E::finalizeSucceeded(), P::success},
        {{P::finalizing}, E::finalizeFailed(true), P::errorRecoverable},
        {{P::finalizing}, E::finalizeFailed(false), P::errorUnrecoverable},
        {{P::errorRecoverable}, E::retryRequested(), P::waitingForUploads},
        {{P::success, P::errorRecoverable, P::errorUnrecoverable}, E::dismissed(), P::idle},

        {{}, E::fatalError(), P::errorRecoverable},
        {{P::idle}, E::recoveredActiveRecording(false), P::recording},
        {{P::idle}, E::recoveredActiveRecording(true), P::pausedUser},
        {{P::idle}, E::recoveredStoppedRecording(), P::processingMapping},
    };
    return table;
}

// Every event, with each payload value the table distinguishes.
std::vector<E> allEvents() {
    std::vector<E> events = {E::signedIn(),
                             E::signedOut(),
                             E::updateRequiredDetected(),
                             E::updateResolved(),
                             E::startRequested(),
                             E::preflightFailedMicPermission(),
                             E::preflightFailedSystemAudioPermission(),
                             E::preflightFailedDeviceMissing(),
                             E::preflightFailedDiskSpace(),
                             E::preflightPassed(),
                             E::permissionResolved(),
                             E::initFailed(true),
                             E::initFailed(false),
                             E::initSucceeded(),
                             E::nativeStartSucceeded(),
                             E::nativeStartFailed(),
                             E::deviceWarning(),
                             E::deviceWarningCleared(),
                             E::noAudioWarning(),
                             E::audioReturned(),
                             E::wentOffline(),
                             E::backOnline(),
                             E::routeChanged(),
                             E::routeSettled(),
                             E::userPaused(),
                             E::userResumedRequested(),
                             E::resumeSucceeded(),
                             E::resumeFailedTerminal(),
                             E::systemInterrupted(),
                             E::interruptionEnded(),
                             E::stopTapped(),
                             E::stopCancelled(),
                             E::stopConfirmed(),
                             E::stopWhilePaused(),
                             E::nativeStopped(7),
                             E::processingFinished(),
                             E::speakersConfirmed(),
                             E::backToSpeakers(),
                             E::shareSubmitted(),
                             E::allChunksOnServer(),
                             E::uploadsIncomplete(),
                             E::finalizeSucceeded(),
                             E::finalizeFailed(true),
                             E::finalizeFailed(false),
                             E::retryRequested(),
                             E::dismissed(),
                             E::fatalError(),
                             E::recoveredActiveRecording(false),
                             E::recoveredActiveRecording(true),
                             E::recoveredStoppedRecording()};
    return events;
}

const Row* rowFor(P from, const E& event) {
    for (const auto& row : rows()) {
        if (row.event == event && (row.from.empty() || row.from.count(from))) {
            return &row;
        }
    }
    return nullptr;
}

std::string raw(P phase) {
    return std::string(toRaw(phase));
}

} // namespace

TEST(RecordingStateMachineTest, EveryPhaseAndEventFollowsTheTableAndEverythingElseIsRefused) {
    int transitions = 0;
    for (P from : allCases<P>()) {
        for (const E& event : allEvents()) {
            const Row* row = rowFor(from, event);
            // A sentinel that no row writes shows whether the call touched warningReturn.
            P warningReturn = P::idle;
            auto next = RecordingStateMachine::nextPhase(from, event, warningReturn);
            SCOPED_TRACE(raw(from) + " + " + std::string(event.name()));
            if (!row) {
                EXPECT_FALSE(next.has_value()) << "went to " << raw(*next);
                EXPECT_EQ(warningReturn, P::idle);
                continue;
            }
            ++transitions;
            ASSERT_TRUE(next.has_value());
            EXPECT_EQ(raw(*next), raw(row->to));
            EXPECT_EQ(warningReturn, row->star ? P::recording : P::idle);
        }
    }
    // A guard against a table that silently lost rows: the transitions counted by hand from the rows.
    EXPECT_EQ(transitions, 145);
}

TEST(RecordingStateMachineTest, ApplyStoresAnswersAndLeavesTheRecordUntouchedOnRefusal) {
    RecordingStateMachine machine;
    EXPECT_EQ(machine.phase(), P::signedOut);
    EXPECT_EQ(machine.warningReturnPhase(), P::recording);

    for (auto event : {E::signedIn(), E::startRequested(), E::preflightPassed(), E::initSucceeded(),
                       E::nativeStartSucceeded(), E::wentOffline(), E::noAudioWarning()}) {
        ASSERT_TRUE(machine.apply(event).has_value()) << event.name();
    }
    EXPECT_EQ(machine.phase(), P::recordingNoAudioWarning);

    // Once the offline banner gave way to no-audio, the late backOnline no longer applies.
    auto before = machine;
    EXPECT_FALSE(machine.apply(E::backOnline()).has_value());
    EXPECT_FALSE(machine.apply(E::startRequested()).has_value());
    EXPECT_FALSE(machine.apply(E::recoveredActiveRecording(false)).has_value());
    EXPECT_EQ(machine, before);

    // A same-phase transition is answered, not refused.
    RecordingStateMachine paused(P::pausedUser);
    EXPECT_EQ(paused.apply(E::systemInterrupted()), P::pausedUser);
    EXPECT_EQ(RecordingStateMachine(P::signedOut).apply(E::signedOut()), P::signedOut);

    // userPaused from the stop confirmation; the cancel that follows is refused.
    RecordingStateMachine confirm(P::stopConfirm);
    EXPECT_EQ(confirm.apply(E::userPaused()), P::pausedUser);
    EXPECT_FALSE(confirm.apply(E::stopCancelled()).has_value());
    EXPECT_EQ(confirm.phase(), P::pausedUser);
}

TEST(RecordingStateMachineTest, RawValuesRoundTripAndPredicatesCoverTheirSets) {
    EXPECT_EQ(allCases<P>().size(), 29u);
    EXPECT_EQ(allCases<P>().front(), P::signedOut);
    EXPECT_EQ(allCases<P>().back(), P::errorUnrecoverable);
    std::set<std::string> seen;
    for (P phase : allCases<P>()) {
        auto text = raw(phase);
        EXPECT_TRUE(seen.insert(text).second) << text;
        EXPECT_EQ(fromRaw<P>(text), phase);
        Json json = phase;
        EXPECT_EQ(json, text);
        EXPECT_EQ(json.get<P>(), phase);
    }
    EXPECT_EQ(raw(P::diskSpaceBlocked), "disk_space_blocked");
    EXPECT_EQ(raw(P::permissionSystemAudioNeeded), "permission_system_audio_needed");
    EXPECT_FALSE(fromRaw<P>("paused").has_value());
    EXPECT_FALSE(fromRaw<P>("Recording").has_value());
    EXPECT_THROW(Json("paused").get<P>(), DecodingError);

    const std::set<P> capturing = plus(kRecordingAndWarnings, {P::stopConfirm});
    const std::set<P> notInSession =
        plus(kBlockers, {P::signedOut, P::idle, P::updateRequired, P::success, P::errorUnrecoverable});
    const std::set<P> noOverlay = plus(kBlockers, {P::signedOut, P::idle, P::updateRequired});
    for (P phase : allCases<P>()) {
        SCOPED_TRACE(raw(phase));
        EXPECT_EQ(isCapturing(phase), capturing.count(phase) == 1);
        EXPECT_EQ(isInActiveSession(phase), notInSession.count(phase) == 0);
        EXPECT_EQ(presentsFlowOverlay(phase), noOverlay.count(phase) == 0);
    }
}
