#pragma once

#include "core/workspace/TipsResponse.h"

namespace kavelo {

// Where the dashboard tips come from. Blocks; throws APIError on any failure.
class TipsBackend {
  public:
    virtual ~TipsBackend() = default;
    virtual TipsResponse fetch() = 0;
};

} // namespace kavelo
