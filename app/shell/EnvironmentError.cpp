#include "app/shell/EnvironmentError.h"

namespace kavelo {

namespace {

std::string describe(EnvironmentError::Kind kind, const std::string& subject, const std::string& detail) {
    const std::string because = detail.empty() ? "" : " (" + detail + ")";
    switch (kind) {
    case EnvironmentError::Kind::infoFileUnreadable:
        return "KAVELO_INFO_FILE names " + subject + ", which cannot be read" + because;
    case EnvironmentError::Kind::infoFileNotAnObject:
        return "KAVELO_INFO_FILE names " + subject + ", which holds no JSON object" + because;
    case EnvironmentError::Kind::unknownBackendChoice:
        return "KAVELO_BACKEND is '" + subject + "'; it takes live or mock";
    case EnvironmentError::Kind::noBackendAddress:
        return "no backend address: " + subject +
               " lacks SUPABASE_URL or SUPABASE_ANON_KEY; name a file with both in KAVELO_INFO_FILE, or set "
               "KAVELO_BACKEND=mock for the mock world";
    case EnvironmentError::Kind::badBackendAddress:
        return "SUPABASE_URL '" + subject + "' is not an address with a host" + because;
    }
    return subject;
}

} // namespace

EnvironmentError::EnvironmentError(Kind kind, std::string subject, std::string detail)
    : std::runtime_error(describe(kind, subject, detail)), kind_(kind), subject_(std::move(subject)),
      detail_(std::move(detail)) {}

} // namespace kavelo
