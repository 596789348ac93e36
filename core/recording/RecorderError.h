#pragma once

#include <stdexcept>
#include <string>

namespace kavelo {

// Errors of the recorder's operations. No words for the user of their own: the coordinator supplies those.
class RecorderError : public std::runtime_error {
  public:
    enum class Kind {
        startFailed,
        resumeFailed,
        permissionDenied,
        noMicrophone,
        notRecording,
        engineStalledPermanent
    };

    static RecorderError startFailed(std::string text) { return {Kind::startFailed, std::move(text)}; }
    static RecorderError resumeFailed(std::string text) { return {Kind::resumeFailed, std::move(text)}; }
    static RecorderError permissionDenied() { return {Kind::permissionDenied, "permission denied"}; }
    static RecorderError noMicrophone() { return {Kind::noMicrophone, "no microphone"}; }
    static RecorderError notRecording() { return {Kind::notRecording, "not recording"}; }
    static RecorderError engineStalledPermanent() { return {Kind::engineStalledPermanent, "engine stalled"}; }

    [[nodiscard]] Kind kind() const { return kind_; }
    // The text carried by startFailed and resumeFailed; the case's description otherwise.
    [[nodiscard]] std::string text() const { return what(); }
    bool operator==(const RecorderError& other) const {
        return kind_ == other.kind_ && text() == other.text();
    }

  private:
    RecorderError(Kind kind, std::string text) : std::runtime_error(std::move(text)), kind_(kind) {}
    Kind kind_;
};

} // namespace kavelo
