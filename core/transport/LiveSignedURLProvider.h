#pragma once

#include "core/backend/HTTPClient.h"
#include "core/support/AppConfig.h"
#include "core/transport/SignedURLProvider.h"

#include <memory>
#include <string>

namespace kavelo {

// Asks the backend's generate-upload-urls function for a batch of signed URLs. The request goes straight
// through the HTTP client: the recording secret travels in its own header, with no apikey and no
// Authorization, and no retry or error mapping of the Supabase clients applies.
//
// Only absolute http and https URLs are kept: an entry the server sends with anything else (a relative
// text, a file: URL) is left out, and that chunk goes by the fallback route.
class LiveSignedURLProvider final : public SignedURLProvider {
  public:
    LiveSignedURLProvider(AppConfig config, std::shared_ptr<HTTPClient> http);

    std::vector<SignedURL> fetchSignedURLs(const std::string& recordingId, const std::string& recordingSecret,
                                           int startSequence, int count) override;

    // Whether text is an absolute http(s) URL that the upload may be sent to.
    static bool isUsableUploadURL(const std::string& text);

  private:
    const AppConfig config_;
    const std::shared_ptr<HTTPClient> http_;
};

} // namespace kavelo
