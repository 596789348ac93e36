#pragma once

#include "core/support/CoreJSON.h"

#include <httplib.h>

#include <string>

namespace kavelo {

// A thin HTTP client for tests of the stand-in: JSON in and out, the gateway headers at hand.
class StandInClient {
  public:
    struct Reply {
        int status = 0; // 0: no answer (the connection was dropped)
        std::string body;
        httplib::Headers headers;
        [[nodiscard]] Json json() const { return CoreJSON::decode(body); }
    };

    StandInClient(int port, std::string anonKey = "dev-anon-key")
        : client_("127.0.0.1", port), anonKey_(std::move(anonKey)) {
        client_.set_read_timeout(10, 0);
    }

    // Headers of a call through the gateway: apikey and a bearer (the anon key when token is empty).
    httplib::Headers gateway(const std::string& token = "") const {
        return {{"apikey", anonKey_}, {"Authorization", "Bearer " + (token.empty() ? anonKey_ : token)}};
    }

    Reply post(const std::string& path, const Json& body, const httplib::Headers& headers = {}) {
        return reply(client_.Post(path, headers, CoreJSON::encode(body), "application/json"));
    }
    Reply postRaw(const std::string& path, const std::string& body, const httplib::Headers& headers,
                  const std::string& contentType = "audio/aac") {
        return reply(client_.Post(path, headers, body, contentType));
    }
    Reply put(const std::string& pathAndQuery, const std::string& body,
              const httplib::Headers& headers = {}) {
        return reply(client_.Put(pathAndQuery, headers, body, "audio/aac"));
    }
    Reply putJson(const std::string& path, const Json& body, const httplib::Headers& headers) {
        return reply(client_.Put(path, headers, CoreJSON::encode(body), "application/json"));
    }
    Reply patch(const std::string& path, const Json& body, const httplib::Headers& headers) {
        return reply(client_.Patch(path, headers, CoreJSON::encode(body), "application/json"));
    }
    Reply get(const std::string& path, const httplib::Headers& headers = {}) {
        return reply(client_.Get(path, headers));
    }
    Reply del(const std::string& path) { return reply(client_.Delete(path)); }

    // Signs in with a password and returns the token answer.
    Json signIn(const std::string& email, const std::string& password) {
        auto r = post("/auth/v1/token?grant_type=password", Json{{"email", email}, {"password", password}},
                      {{"apikey", anonKey_}});
        return r.status == 200 ? r.json() : Json();
    }

    // The path and query of an absolute URL the server handed out.
    static std::string pathOf(const std::string& url) {
        auto scheme = url.find("://");
        auto slash = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
        return slash == std::string::npos ? "/" : url.substr(slash);
    }

  private:
    static Reply reply(const httplib::Result& result) {
        if (!result) {
            return {};
        }
        return {result->status, result->body, result->headers};
    }

    httplib::Client client_;
    std::string anonKey_;
};

} // namespace kavelo
