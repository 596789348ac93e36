#pragma once

#include "core/recording/RecordingEvent.h"
#include "core/recording/RecordingPhase.h"

#include <optional>

namespace kavelo {

// The whole flow of one recording as one pure table: a phase, an event, and the next phase or nothing.
// No clock, no lock, no I/O. An event that the table refuses changes neither field; a transition that
// ends in the same phase is still a transition. The owner guards its instance with its own lock.
class RecordingStateMachine {
  public:
    explicit RecordingStateMachine(RecordingPhase phase = RecordingPhase::signedOut) : phase_(phase) {}

    // Moves along the table and returns the new phase, or returns nothing and changes nothing.
    std::optional<RecordingPhase> apply(const RecordingEvent& event);

    // The table itself. Only the four rows that enter a warning from plain recording write warningReturn.
    static std::optional<RecordingPhase> nextPhase(RecordingPhase from, const RecordingEvent& event,
                                                   RecordingPhase& warningReturn);

    [[nodiscard]] RecordingPhase phase() const { return phase_; }
    [[nodiscard]] RecordingPhase warningReturnPhase() const { return warningReturnPhase_; }

    bool operator==(const RecordingStateMachine&) const = default;

  private:
    RecordingPhase phase_;
    RecordingPhase warningReturnPhase_ = RecordingPhase::recording;
};

} // namespace kavelo
