#pragma once

#include "tools/devserver/FaultRule.h"

#include <cstdint>
#include <mutex>
#include <random>
#include <vector>

namespace kavelo {

// What the stand-in does to one request before (or instead of) handling it.
struct FaultDecision {
    int latencyMs = 0;
    int status = 0; // answer this status instead of handling the request
    bool drop = false;

    [[nodiscard]] bool fails() const { return status != 0 || drop; }
};

// The fault rules in force, settable at start and while the server runs. Rules are consulted in the
// order they were added: every latency that fires adds up; the first failure that fires wins. A rule
// with a count stays listed when used up, so that tests can read how often it fired.
//
// Thread-safety: any thread; one mutex guards rules and the random source.
class FaultInjector {
  public:
    explicit FaultInjector(std::uint64_t seed);

    int add(const FaultRule& rule); // returns the rule's id
    bool remove(int id);
    void clear();
    [[nodiscard]] FaultDecision decide(const std::string& route);
    // [{"id","route",...,"remaining","fired"}]
    [[nodiscard]] Json toJson() const;

  private:
    struct ActiveRule {
        int id = 0;
        FaultRule rule;
        int remaining = -1;
        int fired = 0;
    };
    bool firesLocked(ActiveRule& active);

    mutable std::mutex mutex_;
    std::mt19937_64 random_;        // guarded by mutex_
    std::vector<ActiveRule> rules_; // guarded by mutex_
    int nextId_ = 1;                // guarded by mutex_
};

} // namespace kavelo
