#pragma once

#include <optional>
#include <string>

namespace kavelo {

// The backend's answer to linking an existing account to a new provider.
struct AccountLinkConfirmResult {
    enum class Kind { success, error, wrongProvider, expired, rateLimited, unauthenticated };

    Kind kind = Kind::error;
    std::optional<std::string> linkedProvider; // success only
    std::optional<std::string> message;        // error only

    static AccountLinkConfirmResult success(std::optional<std::string> linkedProvider) {
        return {Kind::success, std::move(linkedProvider), std::nullopt};
    }
    static AccountLinkConfirmResult error(std::optional<std::string> message) {
        return {Kind::error, std::nullopt, std::move(message)};
    }
    static AccountLinkConfirmResult wrongProvider() { return {Kind::wrongProvider, {}, {}}; }
    static AccountLinkConfirmResult expired() { return {Kind::expired, {}, {}}; }
    static AccountLinkConfirmResult rateLimited() { return {Kind::rateLimited, {}, {}}; }
    static AccountLinkConfirmResult unauthenticated() { return {Kind::unauthenticated, {}, {}}; }

    bool operator==(const AccountLinkConfirmResult&) const = default;
};

} // namespace kavelo
