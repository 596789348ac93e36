#pragma once

#include "core/support/CoreJSON.h"
#include "core/support/Time.h"

#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// An account of the stand-in's auth service, with the columns of its `profiles` row.
struct DevUser {
    std::string id;
    std::string email;
    std::string password; // empty for an account that only signs in through a provider
    std::string fullName;
    std::vector<std::string> providers = {"email"}; // the first is the one the account was made with
    Json userMetadata = Json::object();
    TimePoint createdAt;
    bool emailConfirmed = true;
    std::optional<std::string> jobTitle;
    std::optional<std::string> company;
    std::optional<std::string> organizationId;

    bool operator==(const DevUser&) const = default;

    // The user object of the auth API.
    [[nodiscard]] Json publicJson() const;
    // The `profiles` row.
    [[nodiscard]] Json profileRow() const;

    [[nodiscard]] Json toJson() const; // for the state file: holds the password
    static DevUser fromJson(const Json& json);
};

} // namespace kavelo
