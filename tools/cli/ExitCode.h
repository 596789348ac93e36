#pragma once

namespace kavelo::cli {

// kavelo-cli's exit statuses, as `--help` and the README list them. Scripts branch on these: keep them.
enum ExitCode : int {
    exitSuccess = 0,
    exitFailure = 1,
    exitUsage = 2,
    // The recording is kept on this machine and not sent yet: `kavelo-cli recover` finishes it.
    exitKeptNotSent = 3,
    // A third Ctrl-C: ended at once, like a shell's 128 + SIGINT.
    exitInterrupted = 130,
};

} // namespace kavelo::cli
