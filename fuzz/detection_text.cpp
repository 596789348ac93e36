// Text that meeting detection reads from other programs and from disk: a process's cgroup file, a
// window title, the stored list of muted applications. The first byte picks which; none may crash, and
// the muted list keeps its shape and its bounds.
#include "app/detection/DetectionPreferences.h"
#include "app/detection/MeetingAppTable.h"
#include "app/detection/ProcessTable.h"
#include "core/support/InMemoryKeyValueStore.h"
#include "fuzz/FuzzInput.h"

#include <cctype>
#include <cstdlib>

using namespace kavelo;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::FuzzInput input(data, size);
    auto choice = input.byte() % 3;
    auto bytes = input.rest();
    std::string text(bytes.begin(), bytes.end());
    if (choice == 0) {
        if (ProcessTable::desktopIdFromCgroup(text).size() > text.size()) {
            std::abort(); // an id longer than the line it came from
        }
    } else if (choice == 1) {
        (void)MeetingAppTable::serviceFromTitle(text);
    } else {
        auto store = std::make_shared<InMemoryKeyValueStore>();
        store->setString(text, DetectionPreferences::mutedKey);
        DetectionPreferences preferences(store);
        auto names = preferences.mutedApps();
        if (names.size() > DetectionPreferences::maxMutedNames) {
            std::abort();
        }
        for (const auto& name : names) {
            if (name.empty() || name.find(',') != std::string::npos ||
                std::isspace(static_cast<unsigned char>(name.front())) ||
                std::isspace(static_cast<unsigned char>(name.back()))) {
                std::abort(); // a name as the user never typed it
            }
        }
        preferences.mute("Zoom");
        if (!preferences.isMuted("Zoom")) {
            std::abort(); // the user's choice was lost
        }
    }
    return 0;
}
