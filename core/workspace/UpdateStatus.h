#pragma once

#include "core/workspace/UpdatePolicy.h"

#include <optional>
#include <string_view>

namespace kavelo {

// The verdict on the running version. The two update kinds carry the policy they came from, so the desktop
// program can show the latest version and open its download address.
class UpdateStatus {
  public:
    enum class Kind { updateAvailable, updateRequired, upToDate, unknown };

    UpdateStatus() = default; // unknown
    static UpdateStatus updateAvailable(UpdatePolicy policy) {
        return {Kind::updateAvailable, std::move(policy)};
    }
    static UpdateStatus updateRequired(UpdatePolicy policy) {
        return {Kind::updateRequired, std::move(policy)};
    }
    static UpdateStatus upToDate() { return {Kind::upToDate, std::nullopt}; }
    static UpdateStatus unknown() { return {}; }

    [[nodiscard]] Kind kind() const { return kind_; }
    // Present for updateAvailable and updateRequired.
    [[nodiscard]] const std::optional<UpdatePolicy>& policy() const { return policy_; }
    [[nodiscard]] std::optional<std::string> downloadURL() const {
        return policy_ ? policy_->downloadURL : std::nullopt;
    }
    // "updateAvailable", "updateRequired", "upToDate" or "unknown", for logs and the command-line tool.
    [[nodiscard]] std::string_view name() const;

    bool operator==(const UpdateStatus&) const = default;

  private:
    UpdateStatus(Kind kind, std::optional<UpdatePolicy> policy) : kind_(kind), policy_(std::move(policy)) {}

    Kind kind_ = Kind::unknown;
    std::optional<UpdatePolicy> policy_;
};

} // namespace kavelo
