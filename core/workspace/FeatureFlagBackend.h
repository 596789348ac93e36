#pragma once

#include <map>
#include <string>

namespace kavelo {

// Where feature flags would come from: a set of named switches. Blocks; throws on any failure.
class FeatureFlagBackend {
  public:
    virtual ~FeatureFlagBackend() = default;
    virtual std::map<std::string, bool> fetchFlags() = 0;
};

} // namespace kavelo
