#pragma once

#include "core/support/RawEnum.h"

#include <exception>
#include <string>

namespace kavelo {

// Why proving who the user is failed. The cases that carry text carry it ready for a screen or a log;
// the others are turned into a text by the screen. what() is the printed form, e.g.
// `unknown("HTTP 401")` or `rateLimited`; it never holds a token or a password.
class AuthError : public std::exception {
  public:
    enum class Kind {
        prepareFailed,
        exchangeFailed,
        unknown,
        cancelled,
        invalidCredentials,
        emailNotVerified,
        emailTaken,
        weakPassword,
        rateLimited,
        network,
        refreshRejected,
    };

    static AuthError prepareFailed(std::string text) { return {Kind::prepareFailed, std::move(text)}; }
    static AuthError exchangeFailed(std::string text) { return {Kind::exchangeFailed, std::move(text)}; }
    static AuthError unknown(std::string text) { return {Kind::unknown, std::move(text)}; }
    static AuthError cancelled() { return {Kind::cancelled, {}}; }
    static AuthError invalidCredentials() { return {Kind::invalidCredentials, {}}; }
    static AuthError emailNotVerified() { return {Kind::emailNotVerified, {}}; }
    static AuthError emailTaken() { return {Kind::emailTaken, {}}; }
    static AuthError weakPassword() { return {Kind::weakPassword, {}}; }
    static AuthError rateLimited() { return {Kind::rateLimited, {}}; }
    static AuthError network() { return {Kind::network, {}}; }
    static AuthError refreshRejected() { return {Kind::refreshRejected, {}}; }

    [[nodiscard]] Kind kind() const { return kind_; }
    // The payload of prepareFailed, exchangeFailed and unknown; empty for the other cases.
    [[nodiscard]] const std::string& text() const { return text_; }
    [[nodiscard]] const char* what() const noexcept override { return printed_.c_str(); }

    bool operator==(const AuthError& other) const { return kind_ == other.kind_ && text_ == other.text_; }

  private:
    AuthError(Kind kind, std::string text);

    Kind kind_;
    std::string text_;
    std::string printed_;
};

template <> struct RawEnumTraits<AuthError::Kind> {
    using K = AuthError::Kind;
    static constexpr std::array<std::pair<K, std::string_view>, 11> table{{
        {K::prepareFailed, "prepareFailed"},
        {K::exchangeFailed, "exchangeFailed"},
        {K::unknown, "unknown"},
        {K::cancelled, "cancelled"},
        {K::invalidCredentials, "invalidCredentials"},
        {K::emailNotVerified, "emailNotVerified"},
        {K::emailTaken, "emailTaken"},
        {K::weakPassword, "weakPassword"},
        {K::rateLimited, "rateLimited"},
        {K::network, "network"},
        {K::refreshRejected, "refreshRejected"},
    }};
};

} // namespace kavelo
