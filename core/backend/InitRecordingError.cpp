#include "core/backend/InitRecordingError.h"

#include "core/backend/PrintedForm.h"

namespace kavelo {

namespace {

std::string printed(InitRecordingError::Kind kind, int status, const std::optional<std::string>& errorCode,
                    const std::optional<std::string>& message) {
    if (kind == InitRecordingError::Kind::network) {
        return "network";
    }
    return "backend(status: " + std::to_string(status) + ", errorCode: " + PrintedForm::optional(errorCode) +
           ", message: " + PrintedForm::optional(message) + ")";
}

} // namespace

InitRecordingError::InitRecordingError(Kind kind, int status, std::optional<std::string> errorCode,
                                       std::optional<std::string> message)
    : std::runtime_error(printed(kind, status, errorCode, message)), kind_(kind), status_(status),
      errorCode_(std::move(errorCode)), message_(std::move(message)) {}

InitRecordingError InitRecordingError::backend(int status, std::optional<std::string> errorCode,
                                               std::optional<std::string> message) {
    return {Kind::backend, status, std::move(errorCode), std::move(message)};
}

InitRecordingError InitRecordingError::network() {
    return {Kind::network, 0, std::nullopt, std::nullopt};
}

bool InitRecordingError::operator==(const InitRecordingError& other) const {
    return kind_ == other.kind_ && status_ == other.status_ && errorCode_ == other.errorCode_ &&
           message_ == other.message_;
}

} // namespace kavelo
