#pragma once

#include "tools/cli/SignalWatcher.h"

#include <string>
#include <vector>

namespace kavelo::cli {

// `kavelo-cli login`, `logout` and `whoami`: the session that `record` uses in the live world.
class AccountCommands {
  public:
    static const char* loginHelp();
    static const char* logoutHelp();
    static const char* whoamiHelp();
    static int login(const std::vector<std::string>& args, SignalWatcher& signals);
    static int logout(const std::vector<std::string>& args);
    static int whoami(const std::vector<std::string>& args);
};

} // namespace kavelo::cli
