#include "tools/devserver/DevServer.h"

#include "core/support/AtomicFile.h"
#include "core/support/SystemClock.h"
#include "tools/devserver/AdminRoutes.h"
#include "tools/devserver/AuthRoutes.h"
#include "tools/devserver/AuthStore.h"
#include "tools/devserver/CallerAuth.h"
#include "tools/devserver/DevServerContext.h"
#include "tools/devserver/FaultInjector.h"
#include "tools/devserver/HttpReply.h"
#include "tools/devserver/OAuthRoutes.h"
#include "tools/devserver/OAuthStore.h"
#include "tools/devserver/ObjectStorage.h"
#include "tools/devserver/RecordingFunctionRoutes.h"
#include "tools/devserver/RecordingStore.h"
#include "tools/devserver/RequestLog.h"
#include "tools/devserver/RestRoutes.h"
#include "tools/devserver/RouteRunner.h"
#include "tools/devserver/ShutdownSignal.h"
#include "tools/devserver/UploadRoutes.h"
#include "tools/devserver/WorkspaceContentRoutes.h"
#include "tools/devserver/UploadSigner.h"

#include <httplib.h>

#include <iostream>
#include <stdexcept>

namespace kavelo {

namespace {

constexpr std::size_t kThreads = 32; // enough for several clients with parallel uploads and slow faults

} // namespace

DevServer::DevServer(DevServerOptions options, std::shared_ptr<Clock> clock)
    : options_(std::move(options)), clock_(clock ? std::move(clock) : std::make_shared<SystemClock>()) {
    auto root = options_.dataDirectory;
    createPrivateDirectories(root / "objects");
    createPrivateDirectories(root / "state");
    storage_ = std::make_unique<ObjectStorage>(root / "objects");
    recordings_ =
        std::make_unique<RecordingStore>(clock_, root / "state" / "recordings.json", options_.pipeline);
    auth_ = std::make_unique<AuthStore>(clock_, root / "state" / "auth.json", options_.accessTokenLifetime,
                                        options_.autoConfirmSignUps);
    oauth_ = std::make_unique<OAuthStore>(clock_);
    faults_ = std::make_unique<FaultInjector>(options_.faultSeed);
    requests_ = std::make_unique<RequestLog>();
    signer_ = std::make_unique<UploadSigner>(root / "state" / "signing.key", options_.signedUrlLifetime);
    callers_ = std::make_unique<CallerAuth>(*auth_, options_.anonKey, options_.expiredTokenStatus);
    shutdown_ = std::make_unique<ShutdownSignal>();
    runner_ = std::make_unique<RouteRunner>(*faults_, *requests_, *shutdown_);
    context_.reset(new DevServerContext{options_, clock_, *storage_, *recordings_, *auth_, *oauth_, *faults_,
                                        *requests_, *signer_, *callers_, *runner_, baseUrl_});

    for (const auto& rule : options_.faults) {
        faults_->add(rule);
    }
    for (const auto& seed : options_.users) {
        if (auth_->findByEmail(seed.email)) {
            continue; // kept from an earlier run on the same data directory
        }
        DevUser user;
        user.email = seed.email;
        user.password = seed.password;
        auth_->addUser(user);
    }
    if (options_.logRequests) {
        requests_->setPrinter([](const std::string& line) { std::cerr << line << std::endl; });
    }

    server_ = std::make_unique<httplib::Server>();
    server_->new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    server_->set_payload_max_length(64 * 1024 * 1024);
    server_->set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
        HttpReply::error(res, 500, "internal_error", "unexpected failure in kavelo-devserver");
    });
    server_->set_error_handler([](const httplib::Request&, httplib::Response& res) {
        if (!res.body.empty()) {
            return;
        }
        if (res.status == 404) {
            HttpReply::error(res, 404, "not_found", "No such route");
        } else {
            // Among others: a POST without Content-Length, which the HTTP library refuses before routing.
            HttpReply::error(res, res.status, "bad_request", "The request could not be read");
        }
    });
    UploadRoutes::install(*server_, *context_);
    RecordingFunctionRoutes::install(*server_, *context_);
    OAuthRoutes::install(*server_, *context_);
    AuthRoutes::install(*server_, *context_);
    RestRoutes::install(*server_, *context_);
    AdminRoutes::install(*server_, *context_);
    WorkspaceContentRoutes::install(*server_, *context_);
}

DevServer::~DevServer() {
    stop();
}

int DevServer::start() {
    const std::string host = "127.0.0.1";
    int port = options_.port;
    if (port == 0) {
        port = server_->bind_to_any_port(host);
    } else if (!server_->bind_to_port(host, port)) {
        port = -1;
    }
    if (port <= 0) {
        throw std::runtime_error("cannot listen on " + host + ":" + std::to_string(options_.port));
    }
    port_ = port;
    baseUrl_ = "http://" + host + ":" + std::to_string(port);
    listener_ = std::thread([this] { server_->listen_after_bind(); });
    return port_;
}

void DevServer::stop() {
    shutdown_->trigger();
    if (listener_.joinable()) {
        server_->stop();
        listener_.join();
    }
}

} // namespace kavelo
