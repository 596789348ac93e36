#pragma once

#include "core/support/RawEnum.h"

#include <optional>
#include <string>

namespace kavelo {

enum class NativeUploadEventKind {
    configured,
    stored,
    uploaded,
    failed,
    urlFetchFailed,
    urlPoolRefilled,
    jwtFallbackUpload,
    drained,
    uploadGuardStarted,
    uploadGuardEnded,
    storeHeld,
    storeResumed,
};

template <> struct RawEnumTraits<NativeUploadEventKind> {
    static constexpr std::array<std::pair<NativeUploadEventKind, std::string_view>, 12> table{{
        {NativeUploadEventKind::configured, "configured"},
        {NativeUploadEventKind::stored, "stored"},
        {NativeUploadEventKind::uploaded, "uploaded"},
        {NativeUploadEventKind::failed, "failed"},
        {NativeUploadEventKind::urlFetchFailed, "url_fetch_failed"},
        {NativeUploadEventKind::urlPoolRefilled, "url_pool_refilled"},
        {NativeUploadEventKind::jwtFallbackUpload, "jwt_fallback_upload"},
        {NativeUploadEventKind::drained, "drained"},
        {NativeUploadEventKind::uploadGuardStarted, "upload_guard_started"},
        {NativeUploadEventKind::uploadGuardEnded, "upload_guard_ended"},
        {NativeUploadEventKind::storeHeld, "store_held"},
        {NativeUploadEventKind::storeResumed, "store_resumed"},
    }};
};

// One thing the upload worker did. Which optional fields are set depends on the kind. storeHeld: the disk
// refused a chunk, which now waits in memory (sequence, message = the disk's error, count = bytes waiting);
// storeResumed: the disk took the chunks that waited.
struct NativeUploadEvent {
    NativeUploadEventKind kind = NativeUploadEventKind::configured;
    std::optional<int> sequence;
    std::optional<int> statusCode;
    std::optional<int> attempt;
    std::optional<std::string> mode;
    std::optional<std::string> message;
    std::optional<int> uploadedCount;
    std::optional<int> failedCount;
    std::optional<int> startSequence;
    std::optional<int> count;
    std::optional<double> retryAfterSeconds;

    bool operator==(const NativeUploadEvent&) const = default;
};

} // namespace kavelo
