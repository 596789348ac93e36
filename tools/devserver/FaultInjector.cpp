#include "tools/devserver/FaultInjector.h"

#include <algorithm>

namespace kavelo {

FaultInjector::FaultInjector(std::uint64_t seed) : random_(seed) {}

int FaultInjector::add(const FaultRule& rule) {
    std::lock_guard lock(mutex_);
    int id = nextId_++;
    rules_.push_back(ActiveRule{id, rule, rule.count, 0});
    return id;
}

bool FaultInjector::remove(int id) {
    std::lock_guard lock(mutex_);
    auto before = rules_.size();
    std::erase_if(rules_, [id](const ActiveRule& r) { return r.id == id; });
    return rules_.size() != before;
}

void FaultInjector::clear() {
    std::lock_guard lock(mutex_);
    rules_.clear();
}

bool FaultInjector::firesLocked(ActiveRule& active) {
    if (active.remaining == 0) {
        return false;
    }
    if (active.rule.rate < 1.0) {
        std::uniform_real_distribution<double> draw(0.0, 1.0);
        if (draw(random_) >= active.rule.rate) {
            return false;
        }
    }
    if (active.remaining > 0) {
        --active.remaining;
    }
    ++active.fired;
    return true;
}

FaultDecision FaultInjector::decide(const std::string& route) {
    FaultDecision decision;
    std::lock_guard lock(mutex_);
    for (auto& active : rules_) {
        if (active.rule.route != "*" && active.rule.route != route) {
            continue;
        }
        bool failing = active.rule.status != 0 || active.rule.drop;
        if (failing && decision.fails()) {
            continue; // a failure is already chosen; leave this rule's count alone
        }
        if (!firesLocked(active)) {
            continue;
        }
        decision.latencyMs += active.rule.latencyMs;
        if (failing) {
            decision.status = active.rule.status;
            decision.drop = active.rule.drop;
        }
    }
    return decision;
}

Json FaultInjector::toJson() const {
    std::lock_guard lock(mutex_);
    Json list = Json::array();
    for (const auto& active : rules_) {
        Json item = active.rule.toJson();
        item["id"] = active.id;
        item["remaining"] = active.remaining;
        item["fired"] = active.fired;
        list.push_back(std::move(item));
    }
    return list;
}

} // namespace kavelo
