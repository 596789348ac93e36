#pragma once

#include "tools/devserver/DevServerContext.h"

#include <optional>
#include <string>
#include <vector>

namespace httplib {
class Server;
}

namespace kavelo {

// The two ways a chunk reaches storage: signed URLs, handed out in batches by generate-upload-urls
// against the recording's secret, and the storage API itself with the anon key and a bearer.
class UploadRoutes {
  public:
    static void install(httplib::Server& server, DevServerContext& context);

    // The sequence of a chunk file name ("00012.aac" gives 12); absent for any other name.
    static std::optional<int> sequenceOfChunkFile(const std::string& name);
    // The sequences that storage holds for a recording, ascending.
    static std::vector<int> storedSequences(const ObjectStorage& storage, const std::string& recordingId);
};

} // namespace kavelo
