#pragma once

#include "tools/devserver/FaultInjector.h"
#include "tools/devserver/RequestLog.h"
#include "tools/devserver/ShutdownSignal.h"

#include <functional>
#include <string>

namespace httplib {
struct Request;
struct Response;
} // namespace httplib

namespace kavelo {

// Puts every contract route behind the fault rules and the request log: first the latency that fires,
// then either the injected failure (a status or a dropped connection) or the real handler.
class RouteRunner {
  public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    RouteRunner(FaultInjector& faults, RequestLog& log, ShutdownSignal& shutdown);
    [[nodiscard]] Handler wrap(const std::string& route, Handler handler) const;

  private:
    FaultInjector& faults_;
    RequestLog& log_;
    ShutdownSignal& shutdown_;
};

} // namespace kavelo
