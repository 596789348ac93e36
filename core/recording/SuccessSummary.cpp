#include "core/recording/SuccessSummary.h"

namespace kavelo {

std::string SuccessSummary::recipientLabel() const {
    if (externalRecipientCount == 0) {
        return "alleen jij";
    }
    return "jij + " + std::to_string(externalRecipientCount);
}

} // namespace kavelo
