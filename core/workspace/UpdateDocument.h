#pragma once

#include "core/support/Bytes.h"
#include "core/workspace/ReleaseNote.h"
#include "core/workspace/UpdatePolicy.h"

#include <cstddef>
#include <vector>

namespace kavelo {

// The update policy file the update host serves: the policy and the release notes in one JSON object.
//
// The reader is strict, since a wrong policy can block recordings: a missing or mistyped required field, a
// version that is not a short dotted number, a download address that is not http(s), or anything beyond
// the limits below throws DecodingError. Every limit is far above what a real file holds.
struct UpdateDocument {
    static constexpr std::size_t kMaxBytes = 256 * 1024;
    static constexpr std::size_t kMaxReleaseNotes = 50;
    static constexpr std::size_t kMaxNoteBodyBytes = 8 * 1024;
    static constexpr std::size_t kMaxNoteTitleBytes = 512;
    static constexpr std::size_t kMaxURLBytes = 2048;

    UpdatePolicy policy;
    std::vector<ReleaseNote> releaseNotes; // empty when the file has none

    static UpdateDocument parse(const Bytes& body);

    bool operator==(const UpdateDocument&) const = default;
};

} // namespace kavelo
