#include "tools/devserver/RouteRunner.h"

#include "tools/devserver/ConnectionDropper.h"
#include "tools/devserver/HttpReply.h"

#include <httplib.h>

namespace kavelo {

RouteRunner::RouteRunner(FaultInjector& faults, RequestLog& log, ShutdownSignal& shutdown)
    : faults_(faults), log_(log), shutdown_(shutdown) {}

RouteRunner::Handler RouteRunner::wrap(const std::string& route, Handler handler) const {
    return [this, route, handler = std::move(handler)](const httplib::Request& req, httplib::Response& res) {
        log_.begin(route);
        auto decision = faults_.decide(route);
        if (decision.latencyMs > 0) {
            shutdown_.waitFor(decision.latencyMs);
        }
        RequestLog::Entry entry{0, route, req.method, req.path, 0, decision.fails()};
        if (decision.drop && ConnectionDropper::drop(req)) {
            res.status = 500; // never reaches the client: its connection is gone
            log_.add(entry);
            return;
        }
        if (decision.fails()) {
            HttpReply::error(res, decision.status ? decision.status : 500, "injected_fault",
                             "fault injected by kavelo-devserver");
        } else {
            try {
                handler(req, res);
            } catch (const std::exception& e) {
                HttpReply::error(res, 500, "internal_error", e.what());
            }
        }
        entry.status = res.status;
        log_.add(entry);
    };
}

} // namespace kavelo
