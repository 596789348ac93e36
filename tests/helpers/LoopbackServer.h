#pragma once

#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
}

namespace kavelo::test {

// A real HTTP server on 127.0.0.1 and a free port, for tests where the wire is the point. Every request of
// any method and path goes to one handler and is recorded. Keep-alive is on, so tests can see whether a
// client reuses its connection (remotePort stays the same).
//
// A handler may ask for its answer to be held: the server then blocks that request until release() or the
// server's end, which is how tests make a slow or silent server without sleeping.
class LoopbackServer {
  public:
    struct Request {
        std::string method;
        std::string path;                              // without the query
        std::multimap<std::string, std::string> query; // decoded
        std::map<std::string, std::string> headers;    // names lower-cased
        std::string body;
        int remotePort = 0;

        [[nodiscard]] std::string header(const std::string& lowerName) const;
    };
    struct Response {
        int status = 200;
        std::string body;
        std::string contentType = "application/json";
        std::map<std::string, std::string> headers;
        bool hold = false; // block until release() before answering

        static Response answer(int status, std::string body = "{}") {
            Response r;
            r.status = status;
            r.body = std::move(body);
            return r;
        }
        static Response held() {
            Response r;
            r.hold = true;
            return r;
        }
    };
    using Handler = std::function<Response(const Request&)>;

    // The default handler answers 200 with "{}".
    explicit LoopbackServer(Handler handler = {});
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    // A server with TLS, under a self-signed certificate for "localhost" that no client trusts.
    static std::unique_ptr<LoopbackServer> withUntrustedTLS(Handler handler = {});

    [[nodiscard]] int port() const { return port_; }
    [[nodiscard]] std::string baseURL() const; // http://127.0.0.1:<port>, or https://localhost:<port>
    void setHandler(Handler handler);
    [[nodiscard]] std::vector<Request> requests() const;
    // How many requests have been answered or are being held.
    [[nodiscard]] std::size_t requestCount() const;
    // Blocks until count requests have arrived, or the real-time limit passes (then false).
    bool waitForRequests(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;
    // Lets every held request answer, now and from now on.
    void release();

  private:
    struct TLSFiles;
    LoopbackServer(Handler handler, std::unique_ptr<TLSFiles> tls);
    void start();

    std::unique_ptr<TLSFiles> tls_;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = 0;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    Handler handler_;               // guarded by mutex_
    std::vector<Request> requests_; // guarded by mutex_
    bool released_ = false;         // guarded by mutex_
};

} // namespace kavelo::test
