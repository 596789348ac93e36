#pragma once

#include "core/support/Bytes.h"

#include <optional>
#include <string>

namespace kavelo {

// The text that an error of the hosted project carries when its body says nothing more useful.
class SupabaseErrorText {
  public:
    // The first 300 bytes of a body as UTF-8; absent when those bytes are not valid UTF-8 (also when the
    // cut falls inside a character), so that no broken text reaches a screen.
    static std::optional<std::string> bodyPrefix(const Bytes& body);
};

} // namespace kavelo
