#include "helpers/LoopbackServer.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <stdexcept>

namespace kavelo::test {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

} // namespace

// A self-signed certificate and its key in a temporary directory, removed with the server.
struct LoopbackServer::TLSFiles {
    std::filesystem::path directory;
    TLSFiles() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kavelo-tls-XXXXXX").string();
        if (!mkdtemp(pattern.data())) {
            throw std::runtime_error("mkdtemp failed");
        }
        directory = pattern;
        std::string command =
            "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost -keyout '" +
            (directory / "key.pem").string() + "' -out '" + (directory / "cert.pem").string() +
            "' >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0) {
            std::filesystem::remove_all(directory);
            throw std::runtime_error("openssl could not make a test certificate");
        }
    }
    ~TLSFiles() {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }
};

std::string LoopbackServer::Request::header(const std::string& lowerName) const {
    auto it = headers.find(lowerName);
    return it == headers.end() ? std::string() : it->second;
}

LoopbackServer::LoopbackServer(Handler handler) : LoopbackServer(std::move(handler), nullptr) {}

LoopbackServer::LoopbackServer(Handler handler, std::unique_ptr<TLSFiles> tls)
    : tls_(std::move(tls)), handler_(std::move(handler)) {
    if (tls_) {
        server_ = std::make_unique<httplib::SSLServer>((tls_->directory / "cert.pem").c_str(),
                                                       (tls_->directory / "key.pem").c_str());
    } else {
        server_ = std::make_unique<httplib::Server>();
    }
    start();
}

std::unique_ptr<LoopbackServer> LoopbackServer::withUntrustedTLS(Handler handler) {
    return std::unique_ptr<LoopbackServer>(
        new LoopbackServer(std::move(handler), std::make_unique<TLSFiles>()));
}

void LoopbackServer::start() {
    auto serve = [this](const httplib::Request& in, httplib::Response& out) {
        Request request;
        request.method = in.method;
        request.path = in.path;
        for (const auto& [key, value] : in.params) {
            request.query.emplace(key, value);
        }
        for (const auto& [key, value] : in.headers) {
            request.headers[lower(key)] = value;
        }
        request.body = in.body;
        request.remotePort = in.remote_port;

        Handler handler;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
            handler = handler_;
        }
        changed_.notify_all();
        Response response = handler ? handler(request) : Response::answer(200);
        if (response.hold) {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return released_; });
        }
        out.status = response.status;
        for (const auto& [key, value] : response.headers) {
            out.set_header(key, value);
        }
        out.set_content(response.body, response.contentType.c_str());
    };
    const char* anything = ".*";
    server_->Get(anything, serve);
    server_->Post(anything, serve);
    server_->Put(anything, serve);
    server_->Patch(anything, serve);
    server_->Delete(anything, serve);
    server_->Options(anything, serve);
    server_->set_keep_alive_max_count(100000);
    server_->set_tcp_nodelay(true); // no 40 ms Nagle and delayed-ACK stalls between header and body writes
    server_->set_keep_alive_timeout(30);
    server_->set_payload_max_length(256 * 1024 * 1024);

    port_ = server_->bind_to_any_port("127.0.0.1");
    if (port_ <= 0) {
        throw std::runtime_error("LoopbackServer: no free port on 127.0.0.1");
    }
    // The socket listens from here on; connections wait in the backlog until the loop accepts them.
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    // stop() is ignored by a server whose loop has not begun, so the end would wait for a loop that never
    // stops. Waiting here for the loop is a rendezvous with our own thread, over in microseconds.
    while (!server_->is_running()) {
        std::this_thread::yield();
    }
}

LoopbackServer::~LoopbackServer() {
    release();
    server_->stop();
    if (thread_.joinable()) {
        thread_.join();
    }
}

std::string LoopbackServer::baseURL() const {
    return (tls_ ? "https://localhost:" : "http://127.0.0.1:") + std::to_string(port_);
}

void LoopbackServer::setHandler(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

std::vector<LoopbackServer::Request> LoopbackServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

std::size_t LoopbackServer::requestCount() const {
    std::lock_guard lock(mutex_);
    return requests_.size();
}

bool LoopbackServer::waitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return requests_.size() >= count; });
}

void LoopbackServer::release() {
    {
        std::lock_guard lock(mutex_);
        released_ = true;
    }
    changed_.notify_all();
}

} // namespace kavelo::test
