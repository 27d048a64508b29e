// Standard output and standard error of kelctl.
//
// Standard output is gathered in 64 KiB and checked at every write: a full device or a closed
// descriptor is an error, once. A reader that went away ends the process by SIGPIPE, as with other
// tools. One thread.
#pragma once

#include "cli/options.h"

#include <string>
#include <string_view>
#include <vector>

namespace kelconf::cli {

// Gives closed standard descriptors a place of their own, so that no socket or database ever
// becomes "standard output". Before anything is opened.
void guardStandardDescriptors();

void out(std::string_view bytes);
// Writes what is gathered. False when it, or anything before it, could not be written.
bool flushOutput();
// Writes the rest and closes. `status`, or kBroken where output got lost (said on standard error).
int finishOutput(int status);

// One line on standard error: "kelctl: TEXT". Control characters are shown as escapes.
void complain(std::string_view text);
// From here on complain says nothing, or again.
void beQuiet(bool quiet);
// What complain was told since forgetSaid, quiet or not.
const std::vector<std::string>& said();
void forgetSaid();

void toStandardError(std::string_view bytes); // as it is

bool onTerminal(int descriptor);
// By TERM: control sequences would be shown.
bool dumbTerminal();

} // namespace kelconf::cli
