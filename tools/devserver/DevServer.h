#pragma once

#include "core/support/Clock.h"
#include "tools/devserver/DevServerOptions.h"

#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace kavelo {

class ObjectStorage;
class AuthStore;
class OAuthStore;
class FaultInjector;
class RequestLog;
class UploadSigner;
class CallerAuth;
class RouteRunner;
class ShutdownSignal;
struct DevServerContext;

// The stand-in for the hosted backend: a real HTTP server on 127.0.0.1 that serves the functions, tables,
// auth API and storage routes the clients call, with fault injection in front of them and an admin API
// beside them. State and objects live under the data directory and survive a restart.
//
// Thread-safety: start() and stop() from one thread; the parts behind it are safe on the server's threads.
class DevServer {
  public:
    // Creates the data directory and loads what an earlier run left there. Throws std::system_error when
    // the directory cannot be used.
    explicit DevServer(DevServerOptions options, std::shared_ptr<Clock> clock = nullptr);
    ~DevServer();
    DevServer(const DevServer&) = delete;
    DevServer& operator=(const DevServer&) = delete;

    // Binds 127.0.0.1 (the given port, or an ephemeral one) and serves on a thread of its own. Returns the
    // port; throws std::runtime_error when the port cannot be bound.
    int start();
    // Stops listening, wakes waiting handlers and joins the server's threads. Safe to call twice.
    void stop();

    [[nodiscard]] int port() const { return port_; }
    [[nodiscard]] const std::string& baseUrl() const { return baseUrl_; }

    // For tests that run the server in-process.
    [[nodiscard]] FaultInjector& faults() { return *faults_; }
    [[nodiscard]] ObjectStorage& storage() { return *storage_; }
    [[nodiscard]] RecordingStore& recordings() { return *recordings_; }
    [[nodiscard]] AuthStore& auth() { return *auth_; }
    [[nodiscard]] RequestLog& requests() { return *requests_; }

  private:
    const DevServerOptions options_;
    const std::shared_ptr<Clock> clock_;
    std::unique_ptr<ObjectStorage> storage_;
    std::unique_ptr<RecordingStore> recordings_;
    std::unique_ptr<AuthStore> auth_;
    std::unique_ptr<OAuthStore> oauth_;
    std::unique_ptr<FaultInjector> faults_;
    std::unique_ptr<RequestLog> requests_;
    std::unique_ptr<UploadSigner> signer_;
    std::unique_ptr<CallerAuth> callers_;
    std::unique_ptr<ShutdownSignal> shutdown_;
    std::unique_ptr<RouteRunner> runner_;
    std::unique_ptr<DevServerContext> context_;
    std::unique_ptr<httplib::Server> server_;
    std::thread listener_;
    int port_ = 0;
    std::string baseUrl_;
};

} // namespace kavelo
