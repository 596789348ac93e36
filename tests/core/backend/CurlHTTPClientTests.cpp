#include "core/backend/CurlHTTPClient.h"
#include "core/support/Task.h"
#include "helpers/LoopbackServer.h"

#include <gtest/gtest.h>

#include <future>
#include <set>

namespace kavelo {
namespace {

using test::LoopbackServer;

HTTPRequest request(std::string url, std::string method = "GET") {
    HTTPRequest r;
    r.url = std::move(url);
    r.method = std::move(method);
    r.timeout = 10;
    return r;
}

TransportError::Kind failureKind(HTTPClient& client, const HTTPRequest& r) {
    try {
        client.send(r);
    } catch (const TransportError& e) {
        return e.kind();
    }
    ADD_FAILURE() << "send returned an answer";
    return TransportError::Kind::other;
}

TEST(CurlHTTPClient, ReturnsEveryStatusAsAnAnswer) {
    LoopbackServer server([](const LoopbackServer::Request& r) {
        int status = std::stoi(r.path.substr(1));
        return LoopbackServer::Response::answer(status, status == 204 ? "" : "body of " + r.path);
    });
    CurlHTTPClient client;
    for (int status : {200, 201, 204, 401, 404, 409, 500, 503}) {
        HTTPResponse response = client.send(request(server.baseURL() + "/" + std::to_string(status)));
        EXPECT_EQ(response.statusCode, status);
        if (status != 204) {
            EXPECT_EQ(stringFromBytes(response.body), "body of /" + std::to_string(status));
        }
    }
}

TEST(CurlHTTPClient, PutsHeadersMethodAndBodyOnTheWireUnchanged) {
    LoopbackServer server;
    CurlHTTPClient client;

    Bytes body(200 * 1024);
    for (std::size_t i = 0; i < body.size(); ++i) {
        body[i] = static_cast<std::uint8_t>(i * 7); // zero bytes included
    }
    HTTPRequest upload = request(server.baseURL() + "/storage/v1/object/recordings/r1/3.aac?x=a%20b", "PUT");
    upload.headers = {{"Authorization", "Bearer tok"}, {"Content-Type", "audio/aac"}, {"x-upsert", "true"}};
    upload.body = body;
    EXPECT_EQ(client.send(upload).statusCode, 200);

    HTTPRequest post = request(server.baseURL() + "/functions/v1/init-recording", "POST");
    post.body = bytesFromString(R"({"a":1})");
    client.send(post);
    EXPECT_EQ(client.send(request(server.baseURL() + "/rest/v1/meetings", "PATCH")).statusCode, 200);
    client.send(request(server.baseURL() + "/rest/v1/meetings?id=eq.1", "DELETE"));
    client.send(request(server.baseURL() + "/plain"));

    auto seen = server.requests();
    ASSERT_EQ(seen.size(), 5u);
    EXPECT_EQ(seen[0].method, "PUT");
    EXPECT_EQ(seen[0].path, "/storage/v1/object/recordings/r1/3.aac");
    EXPECT_EQ(seen[0].query.find("x")->second, "a b");
    EXPECT_EQ(seen[0].header("authorization"), "Bearer tok");
    EXPECT_EQ(seen[0].header("content-type"), "audio/aac");
    EXPECT_EQ(seen[0].header("x-upsert"), "true");
    EXPECT_EQ(seen[0].header("expect"), ""); // no 100-continue round trip for chunk-sized bodies
    EXPECT_EQ(bytesFromString(seen[0].body), body);

    EXPECT_EQ(seen[1].method, "POST");
    EXPECT_EQ(seen[1].body, R"({"a":1})");
    EXPECT_EQ(seen[1].header("content-type"), ""); // none invented when the caller gave none
    EXPECT_EQ(seen[2].method, "PATCH");
    EXPECT_EQ(seen[3].method, "DELETE");
    EXPECT_EQ(seen[3].query.find("id")->second, "eq.1");
    EXPECT_EQ(seen[4].method, "GET");
    EXPECT_TRUE(seen[4].body.empty());
}

TEST(CurlHTTPClient, ReusesOneConnectionForARunOfRequests) {
    LoopbackServer server;
    CurlHTTPClient client;
    HTTPRequest upload = request(server.baseURL() + "/upload", "PUT");
    upload.body = Bytes(96 * 1024, 1);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(client.send(upload).statusCode, 200);
    }
    std::set<int> ports;
    for (const auto& r : server.requests()) {
        ports.insert(r.remotePort);
    }
    EXPECT_EQ(ports.size(), 1u);
}

TEST(CurlHTTPClient, ConcurrentSendsAllGetTheirOwnAnswer) {
    LoopbackServer server(
        [](const LoopbackServer::Request& r) { return LoopbackServer::Response::answer(200, r.body); });
    CurlHTTPClient client;
    std::vector<std::future<int>> results;
    for (int t = 0; t < 4; ++t) {
        results.push_back(std::async(std::launch::async, [&, t] {
            int mismatches = 0;
            for (int i = 0; i < 15; ++i) {
                HTTPRequest r = request(server.baseURL() + "/echo", "POST");
                std::string text = std::to_string(t) + ":" + std::to_string(i);
                r.body = bytesFromString(text);
                mismatches += stringFromBytes(client.send(r).body) != text;
            }
            return mismatches;
        }));
    }
    for (auto& f : results) {
        EXPECT_EQ(f.get(), 0);
    }
}

TEST(CurlHTTPClient, TimeOutIsItsOwnKind) {
    LoopbackServer server([](const LoopbackServer::Request&) { return LoopbackServer::Response::held(); });
    CurlHTTPClient client;
    HTTPRequest r = request(server.baseURL() + "/slow");
    r.timeout = 0.2;
    EXPECT_EQ(failureKind(client, r), TransportError::Kind::timeout);
}

TEST(CurlHTTPClient, CancellingTheTaskEndsTheTransfer) {
    LoopbackServer server([](const LoopbackServer::Request&) { return LoopbackServer::Response::held(); });
    CurlHTTPClient client;
    std::promise<TransportError::Kind> outcome;
    Task task = Task::run([&] {
        HTTPRequest r = request(server.baseURL() + "/slow");
        r.timeout = 60;
        outcome.set_value(failureKind(client, r));
    });
    ASSERT_TRUE(server.waitForRequests(1));
    task.cancel();
    task.join();
    EXPECT_EQ(outcome.get_future().get(), TransportError::Kind::cancelled);

    // A task that is cancelled already sends nothing.
    std::promise<TransportError::Kind> early;
    Task cancelled = Task::run([&] {
        while (!Task::isCurrentCancelled()) {
            std::this_thread::yield();
        }
        early.set_value(failureKind(client, request(server.baseURL() + "/never")));
    });
    cancelled.cancel();
    cancelled.join();
    EXPECT_EQ(early.get_future().get(), TransportError::Kind::cancelled);
    EXPECT_EQ(server.requestCount(), 1u);
}

TEST(CurlHTTPClient, RefusesAnUntrustedCertificateAndAnUnreachablePeer) {
    auto tls = LoopbackServer::withUntrustedTLS();
    CurlHTTPClient client;
    try {
        client.send(request(tls->baseURL() + "/x"));
        ADD_FAILURE() << "a self-signed certificate was accepted";
    } catch (const TransportError& e) {
        EXPECT_EQ(e.kind(), TransportError::Kind::other);
        EXPECT_NE(std::string(e.what()).find("certificate"), std::string::npos) << e.what();
    }
    EXPECT_EQ(tls->requestCount(), 0u);

    int closedPort = 0;
    {
        LoopbackServer gone;
        closedPort = gone.port();
    }
    EXPECT_EQ(failureKind(client, request("http://127.0.0.1:" + std::to_string(closedPort) + "/")),
              TransportError::Kind::other);
    EXPECT_EQ(failureKind(client, request("file:///etc/passwd")), TransportError::Kind::other);
}

TEST(CurlHTTPClient, RefusesAnAnswerAboveTheLimit) {
    LoopbackServer server([](const LoopbackServer::Request&) {
        return LoopbackServer::Response::answer(200, std::string(64 * 1024, 'x'));
    });
    CurlHTTPClient client(CurlHTTPClient::Options{.maxIdleHandles = 2, .maxResponseBytes = 1024});
    EXPECT_EQ(failureKind(client, request(server.baseURL() + "/big")), TransportError::Kind::other);
}

} // namespace
} // namespace kavelo
