#pragma once

#include "core/support/CoreJSON.h"

#include <httplib.h>

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kavelo::testing {

// The questions the road tests ask the stand-in's admin API: what a recording holds, which requests
// reached which route; and faults switched on and off.
//
// Thread-safety: one instance per thread (an httplib client is not shared).
class StandInAdmin {
  public:
    explicit StandInAdmin(int port) : client_("127.0.0.1", port) { client_.set_read_timeout(15, 0); }

    // The recording as the stand-in keeps it (stored_sequences, finalize_requests, diagnostic_syncs...);
    // null when it does not know the id.
    Json recording(const std::string& id) {
        auto reply = client_.Get("/__admin/recordings/" + id);
        if (!reply) {
            throw std::runtime_error("the stand-in did not answer");
        }
        return reply->status == 200 ? CoreJSON::decode(reply->body) : Json();
    }

    std::vector<int> storedSequences(const std::string& id) {
        const Json r = recording(id);
        return r.is_object() ? r["stored_sequences"].get<std::vector<int>>() : std::vector<int>{};
    }

    std::size_t finalizeRequests(const std::string& id) {
        const Json r = recording(id);
        return r.is_object() ? r["finalize_requests"].size() : 0;
    }

    // Sizes of the stored objects under a path prefix of the recordings bucket, by path.
    std::map<std::string, long long> objectSizes(const std::string& prefix) {
        auto reply = client_.Get("/__admin/storage?bucket=recordings");
        if (!reply || reply->status != 200) {
            throw std::runtime_error("the stand-in's storage list did not answer");
        }
        std::map<std::string, long long> sizes;
        const Json listing = CoreJSON::decode(reply->body);
        for (const auto& object : listing["objects"]) {
            const auto path = object["path"].get<std::string>();
            if (path.rfind(prefix, 0) == 0) {
                sizes[path] = object["size"].get<long long>();
            }
        }
        return sizes;
    }

    // The bytes of one stored object of the recordings bucket; absent when it is not there.
    std::optional<std::string> object(const std::string& path) {
        auto reply = client_.Get("/__admin/storage/object?bucket=recordings&path=" + path);
        if (!reply) {
            throw std::runtime_error("the stand-in did not answer");
        }
        return reply->status == 200 ? std::optional<std::string>(reply->body) : std::nullopt;
    }

    // The handled requests of one route, oldest first.
    Json requests(const std::string& route) {
        auto reply = client_.Get("/__admin/requests?route=" + route);
        if (!reply || reply->status != 200) {
            throw std::runtime_error("the stand-in's request log did not answer");
        }
        return CoreJSON::decode(reply->body)["requests"];
    }

    // Switches fault rules on (the stand-in's rule objects); their ids, for faultsOff().
    std::vector<int> faultsOn(const Json& rules) {
        auto reply = client_.Post("/__admin/faults", CoreJSON::encode(rules), "application/json");
        if (!reply || reply->status != 200) {
            throw std::runtime_error("the stand-in refused the faults " + CoreJSON::encode(rules));
        }
        return CoreJSON::decode(reply->body)["ids"].get<std::vector<int>>();
    }
    void faultsOff(const std::vector<int>& ids) {
        for (const int id : ids) {
            client_.Delete("/__admin/faults/" + std::to_string(id));
        }
    }

  private:
    httplib::Client client_;
};

} // namespace kavelo::testing
