#pragma once

#include "core/support/RawEnum.h"

#include <string_view>

namespace kavelo {

enum class OAuthProvider { google, microsoft, sso };

template <> struct RawEnumTraits<OAuthProvider> {
    static constexpr std::array<std::pair<OAuthProvider, std::string_view>, 3> table{
        {{OAuthProvider::google, "google"},
         {OAuthProvider::microsoft, "microsoft"},
         {OAuthProvider::sso, "sso"}}};
};

// The name shown on buttons and in the waiting panel.
constexpr std::string_view displayName(OAuthProvider provider) {
    switch (provider) {
    case OAuthProvider::google:
        return "Google";
    case OAuthProvider::microsoft:
        return "Microsoft";
    case OAuthProvider::sso:
        return "SSO";
    }
    return {};
}

} // namespace kavelo
