// The information file that KAVELO_INFO_FILE names: any content gives a dictionary whose values are
// usable texts or absent.
#include "app/shell/InfoDictionary.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/ScratchFile.h"

#include <cstdlib>

using namespace kavelo;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::ScratchFile file("info.json");
    file.write(fuzz::FuzzInput(data, size).rest());
    auto info = InfoDictionary::fromFile(file.path());
    for (const char* key : {"SUPABASE_URL", "SUPABASE_ANON_KEY", "CFBundleShortVersionString",
                            "CFBundleVersion", "SUFeedURL", ""}) {
        if (auto value = info.value(key); value && value->empty()) {
            std::abort(); // an empty value must read as absent
        }
    }
    return 0;
}
