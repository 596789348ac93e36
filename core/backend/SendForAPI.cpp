#include "core/backend/SendForAPI.h"

#include "core/backend/APIError.h"
#include "core/support/CancellationToken.h"

namespace kavelo {

HTTPResponse sendForAPI(HTTPClient& http, const HTTPRequest& request) {
    try {
        return http.send(request);
    } catch (const APIError&) {
        throw;
    } catch (const CancellationError&) {
        throw APIError::cancelled();
    } catch (const TransportError& e) {
        switch (e.kind()) {
        case TransportError::Kind::timeout:
            throw APIError::timeout();
        case TransportError::Kind::cancelled:
            throw APIError::cancelled();
        case TransportError::Kind::other:
            break;
        }
        throw APIError::network(e.what());
    } catch (const std::exception& e) {
        throw APIError::network(e.what());
    }
}

} // namespace kavelo
