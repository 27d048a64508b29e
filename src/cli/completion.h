// What a shell offers for the TAB key. The scripts in completions/ ask by
// "kelctl __complete WORD...", the words after "kelctl" up to the one under the cursor, which
// may be empty.
#pragma once

#include <span>

namespace kelconf::cli {

inline constexpr const char* kCompleteWord = "__complete";

// Exit status: the name of a file is wanted, the shell knows these.
inline constexpr int kFileNames = 9;

// Prints the candidates one a line, of commands and options with a tab and what they do. A
// candidate that ends in "." or "=" is to be typed on. Names come from the service, or out of
// default.db without it; where many begin alike, only up to their next dot. Says nothing on
// standard error, and ends the process after a second without candidates. kDone or kFileNames.
int complete(std::span<const char* const> words);

} // namespace kelconf::cli
