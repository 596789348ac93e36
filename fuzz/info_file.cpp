// The information file that KAVELO_INFO_FILE names: any content gives a dictionary whose values are
// usable texts or absent, or the EnvironmentError that names the file and what is wrong with it.
#include "app/shell/EnvironmentError.h"
#include "app/shell/InfoDictionary.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/ScratchFile.h"

#include <cstdlib>

using namespace kavelo;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::ScratchFile file("info.json");
    file.write(fuzz::FuzzInput(data, size).rest());
    InfoDictionary info;
    try {
        info = InfoDictionary::fromFile(file.path());
    } catch (const EnvironmentError&) {
        return 0;
    }
    for (const char* key : {"SUPABASE_URL", "SUPABASE_ANON_KEY", "CFBundleShortVersionString",
                            "CFBundleVersion", "SUFeedURL", ""}) {
        if (auto value = info.value(key); value && value->empty()) {
            std::abort(); // an empty value must read as absent
        }
    }
    return 0;
}
