#pragma once

#include "core/support/Bytes.h"
#include "core/workspace/DashboardActivityItem.h"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <vector>

namespace kavelo {

// The on-disk form of one user's dashboard activity: a JSON array of items. The file is ours, but it sits
// in the user's home where anything may have written it, so reading it is bounded like a network answer.
class DashboardActivityFile {
  public:
    // A file this large is not one we wrote (five items take about 2 KiB); it is not read at all.
    static constexpr std::size_t maxBytes = 64 * 1024;
    // Entries beyond this many are ignored.
    static constexpr std::size_t maxEntries = 50;

    // The items of a file's content, or absent when it is too large, not JSON, not an array or holds an
    // entry that does not decode. Never throws.
    static std::optional<std::vector<DashboardActivityItem>> decode(const Bytes& data);
    static Bytes encode(const std::vector<DashboardActivityItem>& items);
    // Reads at most maxBytes + 1 bytes, so a huge file is never held in memory. Absent when the file is
    // missing, unreadable or too large.
    static std::optional<Bytes> readBounded(const std::filesystem::path& path);
};

} // namespace kavelo
