#pragma once

#include <string>
#include <vector>

namespace kavelo::cli {

// `kavelo-cli devices` and `kavelo-cli status`: what this machine offers and what is kept on it.
class InfoCommands {
  public:
    static const char* devicesHelp();
    static const char* statusHelp();
    static int devices(const std::vector<std::string>& args);
    static int status(const std::vector<std::string>& args);
};

} // namespace kavelo::cli
