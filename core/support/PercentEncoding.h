#pragma once

#include <string>
#include <string_view>

namespace kavelo {

// The program's one percent-encoder for URL paths, so that the client and the stand-in agree on how an
// identifier appears in a path.
class PercentEncoding {
  public:
    // Keeps what a path segment may hold as it is (letters, digits, "-._~", "!$&'()*+,;=", ":" and "@")
    // and the "/" separators; every other byte, UTF-8 included, becomes %XX with upper-case hex digits.
    static std::string path(std::string_view text);
};

} // namespace kavelo
