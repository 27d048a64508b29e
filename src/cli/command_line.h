// Reads the command line by the table of commands (cli/commands/commands.h).
#pragma once

#include "cli/commands/commands.h"

#include <vector>

namespace kelconf::cli {

struct Invocation {
    const Command* command = nullptr; // null: the work is done, end with `status`
    int status = kDone;
    Options options;
};

// Prints what --help and --version ask for; a line that is wrong is reported on standard error
// and gives status kUsage.
Invocation readCommandLine(int argc, const char* const* argv);

// An option as its help has it: flags parted by commas, the last one long; the name of its
// argument, null when it takes none.
struct OptionHelp {
    const char* flags;
    const char* argument;
    const char* help;
};

// The options of a command, those of every command included; null: what stands before a command.
std::vector<OptionHelp> optionsOf(const Command* command);

} // namespace kelconf::cli
