#pragma once

#include "app/shell/InfoDictionary.h"

#include <string>

namespace kavelo::cli {

// The language kavelo-cli speaks to people: Dutch when the interface language is Dutch, English
// otherwise. Read from LANGUAGE, LC_ALL, LC_MESSAGES and LANG as the C library ranks them; a C or POSIX
// locale is English.
class CliLanguage {
  public:
    static CliLanguage fromEnvironment(const EnvironmentReader& env);
    static CliLanguage english() { return CliLanguage(false); }
    static CliLanguage dutch() { return CliLanguage(true); }

    [[nodiscard]] bool isDutch() const { return dutch_; }
    // The text in the user's language; both are written out where they are used so that a message and
    // its translation are read and changed together.
    [[nodiscard]] std::string text(const std::string& english, const std::string& dutch) const {
        return dutch_ ? dutch : english;
    }

  private:
    explicit CliLanguage(bool dutch) : dutch_(dutch) {}
    bool dutch_;
};

} // namespace kavelo::cli
