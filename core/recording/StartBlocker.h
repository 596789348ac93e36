#pragma once

#include <string>

namespace kavelo {

// Why the last start did not go through. The screens turn each case into a view; backend shows its text.
class StartBlocker {
  public:
    enum class Kind {
        backend,
        signedOut,
        updateRequired,
        microphonePermission,
        systemAudioPermission,
        audioDeviceMissing,
        offline,
        insufficientDiskSpace,
    };

    static StartBlocker backend(std::string text) { return {Kind::backend, std::move(text)}; }
    static StartBlocker signedOut() { return {Kind::signedOut, {}}; }
    static StartBlocker updateRequired() { return {Kind::updateRequired, {}}; }
    static StartBlocker microphonePermission() { return {Kind::microphonePermission, {}}; }
    static StartBlocker systemAudioPermission() { return {Kind::systemAudioPermission, {}}; }
    static StartBlocker audioDeviceMissing() { return {Kind::audioDeviceMissing, {}}; }
    static StartBlocker offline() { return {Kind::offline, {}}; }
    static StartBlocker insufficientDiskSpace() { return {Kind::insufficientDiskSpace, {}}; }

    [[nodiscard]] Kind kind() const { return kind_; }
    // The ready Dutch text of backend; empty for the other cases.
    [[nodiscard]] const std::string& text() const { return text_; }

    bool operator==(const StartBlocker&) const = default;

  private:
    StartBlocker(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}
    Kind kind_;
    std::string text_;
};

} // namespace kavelo
