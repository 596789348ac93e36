// The session file as found on disk: any content reads as a session or as none (logged), and a session
// that reads can be saved and read back.
#include "core/accounts/FileSessionStore.h"
#include "core/support/ManualClock.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/ScratchFile.h"

#include <cstdlib>
#include <sys/stat.h>

using namespace kavelo;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::ScratchFile file("session.json");
    file.write(fuzz::FuzzInput(data, size).rest());
    ::chmod(file.path().c_str(), 0600);
    FileSessionStore store(file.path(), std::make_shared<CoreLogger>(std::make_shared<ManualClock>(), 16));
    auto session = store.load();
    if (!session) {
        return 0;
    }
    store.save(*session);
    auto reloaded = store.load();
    if (!reloaded || reloaded->accessToken != session->accessToken ||
        reloaded->refreshToken != session->refreshToken || reloaded->user.id != session->user.id) {
        std::abort(); // a session we used could not be kept
    }
    return 0;
}
