// What --help and help print.
#pragma once

#include "cli/commands/commands.h"

#include <string>
#include <string_view>

namespace kelconf::cli {

std::string helpOf(const Command& command);

// The commands, or those below the first word of a command of two.
std::string helpOfGroup(std::string_view group);

} // namespace kelconf::cli
