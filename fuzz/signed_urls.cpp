// The batch of upload addresses: whatever the server lists, only usable http(s) addresses for the asked
// sequences come back, or the errors the provider names.
#include "core/backend/APIError.h"
#include "core/support/CoreJSON.h"
#include "core/transport/LiveSignedURLProvider.h"
#include "fuzz/AnsweringHTTPClient.h"
#include "fuzz/FuzzInput.h"

#include <cstdlib>

using namespace kavelo;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::FuzzInput input(data, size);
    const auto status = input.byte();
    AppConfig config;
    config.supabaseUrl = "http://127.0.0.1:9";
    config.anonKey = "anon";
    LiveSignedURLProvider provider(config, std::make_shared<fuzz::AnsweringHTTPClient>(status, input.rest()));
    try {
        for (const auto& signedURL : provider.fetchSignedURLs("rec-1", "secret", 5, 10)) {
            if (!LiveSignedURLProvider::isUsableUploadURL(signedURL.url)) {
                std::abort(); // an address the upload must not be sent to got through
            }
        }
    } catch (const APIError&) {
    } catch (const DecodingError&) {
    }
    return 0;
}
