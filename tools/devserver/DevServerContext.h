#pragma once

#include "core/support/Clock.h"

#include <memory>
#include <string>

namespace kavelo {

struct DevServerOptions;
class ObjectStorage;
class RecordingStore;
class AuthStore;
class OAuthStore;
class FaultInjector;
class RequestLog;
class UploadSigner;
class CallerAuth;
class RouteRunner;

// The parts of one running stand-in that its route groups share. DevServer owns them all and outlives
// every handler.
struct DevServerContext {
    const DevServerOptions& options;
    std::shared_ptr<Clock> clock;
    ObjectStorage& storage;
    RecordingStore& recordings;
    AuthStore& auth;
    OAuthStore& oauth;
    FaultInjector& faults;
    RequestLog& requests;
    UploadSigner& signer;
    const CallerAuth& callers;
    const RouteRunner& runner;
    const std::string& baseUrl; // http://127.0.0.1:PORT, set before the first request is served
};

} // namespace kavelo
