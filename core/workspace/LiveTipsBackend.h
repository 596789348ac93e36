#pragma once

#include "core/backend/SupabaseFunctionClient.h"
#include "core/workspace/TipsBackend.h"

#include <memory>

namespace kavelo {

// The hosted tips: the function "get-tips" with the user's token and an empty body.
class LiveTipsBackend final : public TipsBackend {
  public:
    static constexpr const char* kFunctionName = "get-tips";
    static constexpr double kTimeoutSeconds = 10;

    explicit LiveTipsBackend(std::shared_ptr<SupabaseFunctionClient> functions);

    // Throws APIError; an answer that TipsResponse refuses is APIError.decoding, one longer than
    // TipsResponse::kMaxBytes is cut off while it downloads.
    TipsResponse fetch() override;

  private:
    const std::shared_ptr<SupabaseFunctionClient> functions_;
};

} // namespace kavelo
