#pragma once

#include "tools/cli/SignalWatcher.h"

#include <string>
#include <vector>

namespace kavelo::cli {

// `kavelo-cli record`: one meeting from the start to the report's hand-over.
class RecordCommand {
  public:
    static const char* help();
    static int run(const std::vector<std::string>& args, SignalWatcher& signals);
};

// `kavelo-cli recover` and `kavelo-cli retry`: finish what an earlier run left behind.
class RecoverCommand {
  public:
    static const char* help();
    static const char* retryHelp();
    static int run(const std::vector<std::string>& args, bool retryOnly, SignalWatcher& signals);
};

} // namespace kavelo::cli
