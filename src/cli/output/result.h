// How a command ended, for programs: with --json a command that prints nothing else prints one
// object, {"command":TEXT,"status":N,"set":[{"name":TEXT,"value":TEXT}...],"messages":[TEXT...]},
// with its exit status, the values that it has set and what it said on standard error.
#pragma once

#include "cli/options.h"

#include <string_view>

namespace kelconf::cli {

// Forgets what an earlier command of this process did.
void beginResult();
void noteSet(std::string_view name, std::string_view value);
// Prints the object. Secrets are stars unless the options show them.
void printResult(const Options& options, std::string_view command, int status);

} // namespace kelconf::cli
