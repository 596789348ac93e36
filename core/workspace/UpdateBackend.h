#pragma once

#include "core/workspace/ReleaseNote.h"
#include "core/workspace/UpdatePolicy.h"

#include <vector>

namespace kavelo {

// Where the update policy comes from. Both calls block and throw APIError on any failure.
class UpdateBackend {
  public:
    virtual ~UpdateBackend() = default;
    virtual UpdatePolicy fetchPolicy() = 0;
    virtual std::vector<ReleaseNote> fetchReleaseNotes() = 0;
};

} // namespace kavelo
