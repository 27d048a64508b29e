// Hashes of passwords by crypt(3). A hash takes some 16 MiB and tens of milliseconds on purpose, so
// one is made at a time. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace kelconf::web {

// Empty when none can be made.
std::string hashOf(const std::string& password);
bool matches(const std::string& password, const std::string& hash);
// Takes the time of matches().
void matchNothing(const std::string& password);

// `bytes` of randomness in hexadecimal digits.
std::string randomText(std::size_t bytes);

} // namespace kelconf::web
