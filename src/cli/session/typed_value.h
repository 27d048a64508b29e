// A value typed at a terminal.
#pragma once

#include <string>

namespace kelconf::cli {

// Asks for the value of a secret on standard error and reads one line without showing it. The
// terminal shows typing again whatever ends this, Ctrl-C too. False, said, when nothing comes.
bool readHiddenLine(const std::string& name, std::string& value);

} // namespace kelconf::cli
