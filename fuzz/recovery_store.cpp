// The recovery file as found on disk: any content reads as a manifest or as absent, and one that reads
// survives a save and a load through the store.
#include "core/recording/FileRecoveryStore.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/ScratchFile.h"

#include <cstdlib>

using namespace kavelo;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::ScratchFile file(FileRecoveryStore::fileName);
    file.write(fuzz::FuzzInput(data, size).rest());
    FileRecoveryStore store(file.directory());
    auto manifest = store.load();
    if (!manifest) {
        return 0;
    }
    store.save(*manifest);
    auto reloaded = store.load();
    if (!reloaded || reloaded->recordingId != manifest->recordingId ||
        reloaded->recordingSecret != manifest->recordingSecret) {
        std::abort(); // a recording we took up could not be kept
    }
    return 0;
}
