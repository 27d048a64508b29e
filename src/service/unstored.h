// What the live database lacks of the live values, and whether it can be given them row by row.
//
// The map belongs to the parameter lock. The state and anyUnstored may be read without it.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace kelconf {

enum class LiveFile : std::uint8_t {
    kWhole,
    kIncomplete, // takes changes, but lacks rows of the trees: a new file is to be made of memory
    kLost        // must not be written, as its values are not the live ones: likewise
};
// Set by the start, then by one thread.
LiveFile liveFile();
void setLiveFile(LiveFile state);

// Changes whose storing failed: name and the plain value that was to be stored, which is not always
// the live one any more. noteStored takes a name out again.
const std::map<std::string, std::string>& unstoredChanges();
void noteUnstored(const char* name, const char* value);
void noteStored(const char* name);
void forgetUnstored();
bool anyUnstored();

} // namespace kelconf
