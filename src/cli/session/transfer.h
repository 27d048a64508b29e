// Settings that come from files: read, compared with the live values, shown, set.
#pragma once

#include "cli/options.h"
#include "cli/session/bus_session.h"
#include "cli/session/changes.h"

#include <string>
#include <vector>

namespace kelconf::cli {

// Reads what export has printed, in either form: the text form, or a JSON object of names and
// values, which begins with "{". "-" is standard input. Appends the settings; of a name that stands
// in several files the last value counts. kBroken or kUsage, said, when one cannot be read or has a
// line that is wrong.
int readSettings(const std::vector<std::string>& files, std::vector<Change>& changes);

// Takes out what is as it is to be already; the rest learns its live value. kDifferent, said, when
// names are unknown.
int compareWithLive(const Bus& bus, std::vector<Change>& changes);

// "-NAME=live value" and "+NAME=new value", secrets as stars.
void showChanges(const Options& options, const std::vector<Change>& changes);

// Asks the question on standard error; true for a yes.
bool confirmed(const std::string& question);

// The parameters that match in the text form, secrets as comments unless they are to be shown; with
// `changed` only those that differ from their factory default.
int exportText(const Options& options, std::string& text);

} // namespace kelconf::cli
