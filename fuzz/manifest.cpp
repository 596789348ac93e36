// The recording manifest as any text: it decodes to a manifest or throws DecodingError, and a manifest
// that decoded can be written and read back unchanged, so that a recording we took up again can be
// saved again.
#include "core/recording/RecordingManifest.h"
#include "fuzz/FuzzInput.h"

#include <cstdlib>

using namespace kavelo;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Bytes bytes = fuzz::FuzzInput(data, size).rest();
    RecordingManifest manifest;
    try {
        manifest = RecordingManifest::fromJson(CoreJSON::decode(bytes));
    } catch (const DecodingError&) {
        return 0;
    }
    try {
        // Dates keep what their written form keeps; from the second writing on nothing changes.
        auto written =
            RecordingManifest::fromJson(CoreJSON::decode(CoreJSON::encodeBytes(manifest.toJson())));
        auto again = RecordingManifest::fromJson(CoreJSON::decode(CoreJSON::encodeBytes(written.toJson())));
        if (!(again == written)) {
            std::abort();
        }
    } catch (const DecodingError&) {
        std::abort(); // what we read, we cannot write back
    }
    return 0;
}
