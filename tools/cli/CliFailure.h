#pragma once

#include <stdexcept>

namespace kavelo::cli {

// A command that cannot go on, with a message already in the user's language that says what to do
// next. main prints it and exits with exitFailure.
class CliFailure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace kavelo::cli
