#include "core/backend/EarlyMappingDispatch.h"

namespace kavelo {

bool EarlyMappingDispatch::shouldPoll() const {
    if (status == "dispatched") {
        return true;
    }
    return reason == "already_pending" || reason == "already_done" || reason == "participants_present";
}

} // namespace kavelo
