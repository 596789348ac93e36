// The preferences file as found on disk: any content reads as preferences or is moved aside, and a value
// written after that reads back, also after a restart.
#include "core/support/PreferencesFile.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/ScratchFile.h"

#include <cstdlib>

using namespace kavelo;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::ScratchFile file("preferences.json");
    file.write(fuzz::FuzzInput(data, size).rest());
    {
        PreferencesFile prefs(file.path(), nullptr);
        (void)prefs.string("kavelo_app_language");
        (void)prefs.data("kavely_tips_cache");
        (void)prefs.boolean("kavelo_live_indicator");
        prefs.setString("en", "kavelo_app_language");
        prefs.setData(Bytes{1, 2, 3}, "kavely_tips_cache");
    }
    PreferencesFile again(file.path(), nullptr);
    if (again.string("kavelo_app_language") != std::optional<std::string>("en") ||
        again.data("kavely_tips_cache") != std::optional<Bytes>(Bytes{1, 2, 3})) {
        std::abort(); // a value the user set did not survive a restart
    }
    return 0;
}
