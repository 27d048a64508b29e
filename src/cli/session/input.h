// Whole inputs in memory.
#pragma once

#include <string>

namespace kelconf::cli {

inline constexpr std::size_t kLongestInput = std::size_t{256} << 20U; // bytes

// Reads a file, or standard input for "-". False when it cannot be read or is longer than
// kLongestInput, said on standard error.
bool readInput(const std::string& path, std::string& content);

} // namespace kelconf::cli
