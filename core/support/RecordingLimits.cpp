#include "core/support/RecordingLimits.h"

namespace kavelo {

namespace {

bool isAlnum(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

} // namespace

bool RecordingLimits::isRecordingId(std::string_view id) {
    if (id.empty() || id.size() > maxRecordingIdLength) {
        return false;
    }
    bool anyAlnum = false;
    for (unsigned char c : id) {
        if (isAlnum(c)) {
            anyAlnum = true;
        } else if (c != '-' && c != '.' && c != '_' && c != '~') {
            return false;
        }
    }
    return anyAlnum;
}

bool RecordingLimits::isRecordingSecret(std::string_view secret) {
    if (secret.empty() || secret.size() > maxRecordingSecretLength) {
        return false;
    }
    for (unsigned char c : secret) {
        if (c < 0x21 || c > 0x7E) {
            return false;
        }
    }
    return true;
}

} // namespace kavelo
