#include "core/workspace/UpdateStatus.h"

namespace kavelo {

std::string_view UpdateStatus::name() const {
    switch (kind_) {
    case Kind::updateAvailable:
        return "updateAvailable";
    case Kind::updateRequired:
        return "updateRequired";
    case Kind::upToDate:
        return "upToDate";
    case Kind::unknown:
        break;
    }
    return "unknown";
}

} // namespace kavelo
