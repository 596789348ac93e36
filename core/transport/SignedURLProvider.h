#pragma once

#include <string>
#include <vector>

namespace kavelo {

// One upload URL handed out by the backend for one chunk. The client treats the URL as opaque.
struct SignedURL {
    int sequence = 0;
    std::string url;
    bool operator==(const SignedURL&) const = default;
};

// Source of per-chunk upload URLs. The recording secret is the only credential, so uploads keep working
// after the user's access token has expired during a long meeting.
//
// The batch asks for chunks by number, also for chunks that do not exist yet. The answer may leave
// sequences out; those chunks go by the fallback route. Throws on any failure (APIError for a status
// outside 2xx, DecodingError for a bad body, the transport's error as it came). Safe from any thread.
class SignedURLProvider {
  public:
    virtual ~SignedURLProvider() = default;
    virtual std::vector<SignedURL> fetchSignedURLs(const std::string& recordingId,
                                                   const std::string& recordingSecret, int startSequence,
                                                   int count) = 0;
};

} // namespace kavelo
