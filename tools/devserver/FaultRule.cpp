#include "tools/devserver/FaultRule.h"

#include <algorithm>
#include <stdexcept>

namespace kavelo {

namespace {

void validate(const FaultRule& rule) {
    const auto& known = FaultRule::knownRoutes();
    if (rule.route != "*" && std::find(known.begin(), known.end(), rule.route) == known.end()) {
        throw std::invalid_argument("unknown route '" + rule.route + "'");
    }
    if (rule.status != 0 && (rule.status < 100 || rule.status > 599)) {
        throw std::invalid_argument("status must be an HTTP status");
    }
    if (rule.status != 0 && rule.drop) {
        throw std::invalid_argument("a rule either answers a status or drops, not both");
    }
    if (!(rule.rate >= 0.0 && rule.rate <= 1.0)) {
        throw std::invalid_argument("rate must lie between 0 and 1");
    }
    if (rule.count < -1) {
        throw std::invalid_argument("count must be 0 or more");
    }
    if (rule.latencyMs < 0) {
        throw std::invalid_argument("latency must not be negative");
    }
    if (rule.status == 0 && !rule.drop && rule.latencyMs == 0) {
        throw std::invalid_argument("a rule needs a status, drop or latency");
    }
}

int toInt(const std::string& key, const std::string& value) {
    std::size_t used = 0;
    int parsed = 0;
    try {
        parsed = std::stoi(value, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != value.size()) {
        throw std::invalid_argument(key + " needs a whole number, not '" + value + "'");
    }
    return parsed;
}

double toDouble(const std::string& key, const std::string& value) {
    std::size_t used = 0;
    double parsed = 0;
    try {
        parsed = std::stod(value, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != value.size()) {
        throw std::invalid_argument(key + " needs a number, not '" + value + "'");
    }
    return parsed;
}

} // namespace

const std::vector<std::string>& FaultRule::knownRoutes() {
    static const std::vector<std::string> routes = {"generate-upload-urls",
                                                    "signed-upload",
                                                    "storage-upload",
                                                    "init-recording",
                                                    "list-recording-chunks",
                                                    "finalize-recording",
                                                    "early-speaker-mapping",
                                                    "oauth-prepare",
                                                    "oauth-mobile-exchange",
                                                    "confirm-account-link",
                                                    "rest-meetings",
                                                    "rest-profiles",
                                                    "rest-recording-status",
                                                    "auth-token",
                                                    "auth-signup",
                                                    "auth-logout",
                                                    "auth-user",
                                                    "get-tips",
                                                    "update-policy"};
    return routes;
}

FaultRule FaultRule::parse(const std::string& text) {
    auto colon = text.find(':');
    if (colon == std::string::npos || colon == 0) {
        throw std::invalid_argument("fault '" + text + "' needs the form ROUTE:KEY=VALUE,...");
    }
    FaultRule rule;
    rule.route = text.substr(0, colon);
    std::string rest = text.substr(colon + 1);
    std::size_t pos = 0;
    while (pos <= rest.size()) {
        auto comma = rest.find(',', pos);
        std::string item = rest.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        pos = comma == std::string::npos ? rest.size() + 1 : comma + 1;
        if (item.empty()) {
            continue;
        }
        auto eq = item.find('=');
        std::string key = item.substr(0, eq);
        std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
        if (key == "drop" && eq == std::string::npos) {
            rule.drop = true;
        } else if (key == "status") {
            rule.status = toInt(key, value);
        } else if (key == "count") {
            rule.count = toInt(key, value);
        } else if (key == "rate") {
            rule.rate = toDouble(key, value);
        } else if (key == "latency-ms") {
            rule.latencyMs = toInt(key, value);
        } else {
            throw std::invalid_argument("unknown fault key '" + key + "'");
        }
    }
    validate(rule);
    return rule;
}

FaultRule FaultRule::fromJson(const Json& json) {
    if (!json.is_object()) {
        throw std::invalid_argument("a fault is a JSON object");
    }
    FaultRule rule;
    try {
        rule.route = json.value("route", std::string("*"));
        rule.status = json.value("status", 0);
        rule.drop = json.value("drop", false);
        rule.rate = json.value("rate", 1.0);
        rule.count = json.value("count", -1);
        rule.latencyMs = json.value("latency_ms", 0);
    } catch (const Json::exception& e) {
        throw std::invalid_argument(std::string("fault field of the wrong type: ") + e.what());
    }
    validate(rule);
    return rule;
}

Json FaultRule::toJson() const {
    return Json{{"route", route}, {"status", status}, {"drop", drop},
                {"rate", rate},   {"count", count},   {"latency_ms", latencyMs}};
}

} // namespace kavelo
