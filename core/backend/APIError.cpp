#include "core/backend/APIError.h"

#include "core/backend/PrintedForm.h"

namespace kavelo {

namespace {

std::string printed(APIError::Kind kind, int status, const std::string& text,
                    const std::optional<std::string>& errorCode, const std::optional<std::string>& message) {
    switch (kind) {
    case APIError::Kind::network:
        return "network(" + PrintedForm::quoted(text) + ")";
    case APIError::Kind::http:
        return "http(status: " + std::to_string(status) + ", errorCode: " + PrintedForm::optional(errorCode) +
               ", message: " + PrintedForm::optional(message) + ")";
    case APIError::Kind::decoding:
        return "decoding(" + PrintedForm::quoted(text) + ")";
    case APIError::Kind::timeout:
        return "timeout";
    case APIError::Kind::unauthenticated:
        return "unauthenticated";
    case APIError::Kind::cancelled:
        return "cancelled";
    }
    return "unknown";
}

} // namespace

APIError::APIError(Kind kind, int status, std::string text, std::optional<std::string> errorCode,
                   std::optional<std::string> message)
    : std::runtime_error(printed(kind, status, text, errorCode, message)), kind_(kind), status_(status),
      text_(std::move(text)), errorCode_(std::move(errorCode)), message_(std::move(message)) {}

APIError APIError::network(std::string text) {
    return {Kind::network, 0, std::move(text), std::nullopt, std::nullopt};
}

APIError APIError::http(int status, std::optional<std::string> errorCode,
                        std::optional<std::string> message) {
    return {Kind::http, status, {}, std::move(errorCode), std::move(message)};
}

APIError APIError::decoding(std::string text) {
    return {Kind::decoding, 0, std::move(text), std::nullopt, std::nullopt};
}

APIError APIError::timeout() {
    return {Kind::timeout, 0, {}, std::nullopt, std::nullopt};
}

APIError APIError::unauthenticated() {
    return {Kind::unauthenticated, 0, {}, std::nullopt, std::nullopt};
}

APIError APIError::cancelled() {
    return {Kind::cancelled, 0, {}, std::nullopt, std::nullopt};
}

std::optional<int> APIError::httpStatus() const {
    if (kind_ != Kind::http) {
        return std::nullopt;
    }
    return status_;
}

bool APIError::operator==(const APIError& other) const {
    return kind_ == other.kind_ && status_ == other.status_ && text_ == other.text_ &&
           errorCode_ == other.errorCode_ && message_ == other.message_;
}

} // namespace kavelo
