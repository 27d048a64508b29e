// Whether a database file, and its sidecar, are in order. Looks only: no lock is taken, no journal
// is rolled back, and the file may be in use by the service meanwhile.
#pragma once

#include <cstdint>
#include <string>

namespace kelconf::cli {

struct StoreFile {
    const char* path;
    const char* sidecar;
    const char* witness; // change counter of the last sealing (live/seal.h); null: none
    const char* journal; // null: not looked at
    const char* table;   // whose rows are counted
};

struct StoreState {
    bool in_order = false;
    std::string words;     // "sound", "missing", or what is wrong
    const char* word = ""; // the same in one: "sound", "missing", "unreadable", "unsealed",
                           // "unfinished" or "damaged"
    std::int64_t rows = 0; // parameters in it, where it could be read
};

// `in_use`: somebody may be writing the file, so a mismatch is looked at again for up to a second.
StoreState judgeStore(const StoreFile& file, bool in_use);

} // namespace kelconf::cli
