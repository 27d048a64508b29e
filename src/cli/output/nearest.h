// What somebody may have meant.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace kelconf::cli {

// The candidate that the fewest typing slips turn into `word` (a letter changed, added, left out,
// or two exchanged), at most one in three letters; empty when there is none, the first of several.
std::string nearest(std::string_view word, std::span<const std::string> candidates);

// "; did you mean GUESS?", or nothing for an empty guess.
std::string didYouMean(std::string_view guess);

} // namespace kelconf::cli
