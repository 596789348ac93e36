#pragma once

#include <optional>
#include <stdexcept>
#include <string>

namespace kavelo {

// Why the server did not open a recording. The coordinator turns it into a start blocker; a backend case
// carries the server's own message, which wins over the coordinator's fallback text.
class InitRecordingError : public std::runtime_error {
  public:
    enum class Kind { backend, network };

    // The server answered with a non-2xx status; code and message as the function client read them.
    static InitRecordingError backend(int status, std::optional<std::string> errorCode = std::nullopt,
                                      std::optional<std::string> message = std::nullopt);
    // No answer: a transport failure or a time-out.
    static InitRecordingError network();

    [[nodiscard]] Kind kind() const { return kind_; }
    // Status, code and message of backend; 0 and absent for network.
    [[nodiscard]] int status() const { return status_; }
    [[nodiscard]] const std::optional<std::string>& errorCode() const { return errorCode_; }
    [[nodiscard]] const std::optional<std::string>& message() const { return message_; }

    // The printed form, such as: backend(status: 503, errorCode: Optional("busy"), message: nil).
    [[nodiscard]] std::string description() const { return what(); }

    bool operator==(const InitRecordingError& other) const;

  private:
    InitRecordingError(Kind kind, int status, std::optional<std::string> errorCode,
                       std::optional<std::string> message);

    Kind kind_;
    int status_ = 0;
    std::optional<std::string> errorCode_;
    std::optional<std::string> message_;
};

} // namespace kavelo
