#pragma once

#include <vector>

namespace kavelo {

// The server's view of a recording's chunks. With checked false the server could not be asked and the two
// lists are empty: an unknown, never a sign that nothing has arrived.
struct ChunkReconciliation {
    std::vector<int> uploadedSequences;
    std::vector<int> missing;
    bool checked = false;

    static ChunkReconciliation unchecked() { return {}; }
    bool operator==(const ChunkReconciliation&) const = default;
};

} // namespace kavelo
