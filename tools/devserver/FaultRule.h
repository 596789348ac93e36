#pragma once

#include "core/support/CoreJSON.h"

#include <string>
#include <vector>

namespace kavelo {

// One injected misbehaviour of the stand-in, for one route or for all ("*"). A rule answers a failure
// status, or drops the connection without an answer, or only adds latency; it may do several at once
// (wait, then fail). It fires on every matching request, or with probability `rate`, and at most `count`
// times when a count is given.
struct FaultRule {
    std::string route;
    int status = 0;    // 0: no failure status
    bool drop = false; // close the connection without any answer
    double rate = 1.0; // probability that the rule fires on a matching request
    int count = -1;    // how many times it may fire; -1: without limit
    int latencyMs = 0; // added before the request is handled (or failed)

    bool operator==(const FaultRule&) const = default;

    // "ROUTE:status=500,count=3", "signed-upload:drop,rate=0.2", "*:latency-ms=50". Throws
    // std::invalid_argument with a readable reason.
    static FaultRule parse(const std::string& text);
    // {"route","status","drop","rate","count","latency_ms"}; absent keys keep their defaults.
    static FaultRule fromJson(const Json& json);
    [[nodiscard]] Json toJson() const;

    // The route names that rules may name, in the order --help lists them.
    static const std::vector<std::string>& knownRoutes();
};

} // namespace kavelo
