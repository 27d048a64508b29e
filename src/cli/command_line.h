// Reads the command line by the table of commands (cli/commands/commands.h).
#pragma once

#include "cli/commands/commands.h"

namespace kelconf::cli {

struct Invocation {
    const Command* command = nullptr; // null: the work is done, end with `status`
    int status = kDone;
    Options options;
};

// Prints what --help and --version ask for; a line that is wrong is reported on standard error
// and gives status kUsage.
Invocation readCommandLine(int argc, const char* const* argv);

} // namespace kelconf::cli
