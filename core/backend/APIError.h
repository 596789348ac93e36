#pragma once

#include <optional>
#include <stdexcept>
#include <string>

namespace kavelo {

// The one error of the backend layer. It has no words for the user of its own: the services above decide
// what a user sees from the kind, the status and the errorCode. what() is the printed form, for logs and
// for the few callers that pass an error on as text.
class APIError : public std::runtime_error {
  public:
    enum class Kind { network, http, decoding, timeout, unauthenticated, cancelled };

    // The transport failed; text is its own description.
    static APIError network(std::string text);
    // The server answered outside 200 to 299.
    static APIError http(int status, std::optional<std::string> errorCode = std::nullopt,
                         std::optional<std::string> message = std::nullopt);
    // A 2xx body did not decode.
    static APIError decoding(std::string text);
    static APIError timeout();
    // The call needs a user's token and there is none.
    static APIError unauthenticated();
    // The surrounding task was cancelled.
    static APIError cancelled();

    [[nodiscard]] Kind kind() const { return kind_; }
    // The text of network and decoding; empty for the other kinds.
    [[nodiscard]] const std::string& text() const { return text_; }
    // Status, code and message of http; absent for every other kind.
    [[nodiscard]] std::optional<int> httpStatus() const;
    [[nodiscard]] const std::optional<std::string>& errorCode() const { return errorCode_; }
    [[nodiscard]] const std::optional<std::string>& message() const { return message_; }

    // The printed form, such as: http(status: 500, errorCode: nil, message: Optional("boom")).
    [[nodiscard]] std::string description() const { return what(); }

    bool operator==(const APIError& other) const;

  private:
    APIError(Kind kind, int status, std::string text, std::optional<std::string> errorCode,
             std::optional<std::string> message);

    Kind kind_;
    int status_ = 0;
    std::string text_;
    std::optional<std::string> errorCode_;
    std::optional<std::string> message_;
};

} // namespace kavelo
