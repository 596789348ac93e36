#pragma once

#include "core/support/RawEnum.h"

#include <string_view>

namespace kavelo {

// Why an OAuth round trip failed; the raw text is the backend's error_code.
enum class OAuthErrorCode {
    codeInvalidOrConsumed,
    invalidState,
    emailNotVerified,
    accountExistsOtherProvider,
    inviteEmailMismatch,
    linkTokenExpired,
    accountLinkLegacyFlow,
    stateInvalidOrExpired,
    oauthFailed,
    consumeFailed,
    sessionDataMissing,
    sessionBuildFailed,
    unknown,
};

template <> struct RawEnumTraits<OAuthErrorCode> {
    using C = OAuthErrorCode;
    static constexpr std::array<std::pair<C, std::string_view>, 13> table{{
        {C::codeInvalidOrConsumed, "code_invalid_or_consumed"},
        {C::invalidState, "invalid_state"},
        {C::emailNotVerified, "email_not_verified"},
        {C::accountExistsOtherProvider, "account_exists_other_provider"},
        {C::inviteEmailMismatch, "invite_email_mismatch"},
        {C::linkTokenExpired, "link_token_expired"},
        {C::accountLinkLegacyFlow, "account_link_legacy_flow"},
        {C::stateInvalidOrExpired, "state_invalid_or_expired"},
        {C::oauthFailed, "oauth_failed"},
        {C::consumeFailed, "consume_failed"},
        {C::sessionDataMissing, "session_data_missing"},
        {C::sessionBuildFailed, "session_build_failed"},
        {C::unknown, "unknown"},
    }};
};

} // namespace kavelo
