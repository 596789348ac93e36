#pragma once

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace kavelo::cli {

// A mistake on the command line; the text says what and is shown with a pointer to --help.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The options of one command: "--name value" or "--name=value" for valued options, "--flag" for
// switches. Unknown options and missing values are usage errors, not silently ignored.
class CliArguments {
  public:
    CliArguments(const std::vector<std::string>& args, const std::set<std::string>& valued,
                 const std::set<std::string>& switches);

    [[nodiscard]] bool has(const std::string& name) const;
    [[nodiscard]] std::optional<std::string> value(const std::string& name) const;
    [[nodiscard]] std::optional<double> number(const std::string& name, double min, double max) const;
    [[nodiscard]] std::optional<int> integer(const std::string& name, int min, int max) const;
    [[nodiscard]] std::string choice(const std::string& name, const std::vector<std::string>& allowed,
                                     const std::string& fallback) const;

  private:
    std::map<std::string, std::string> values_;
    std::set<std::string> switches_;
};

// "Anne, Bram; Carla" as people type lists of names or addresses: items split at commas and
// semicolons, trimmed, empty ones left out.
std::vector<std::string> splitList(const std::string& text);

} // namespace kavelo::cli
