// What the service asks of the store under it. The service hands values over and does not know how
// they are kept; the store (live/live.h) knows the service's lists. useStorage connects the two,
// before the first request or pass.
#pragma once

#include <string>
#include <vector>

namespace kelconf {

// A change of an ordinary parameter, as it was set: plain, unquoted.
struct StoredChange {
    std::string name;
    std::string value;
};

struct Storage {
    // Stores the changes, in their order, and whatever it takes to seal them. A change that could
    // not be stored is kept in mind and tried again later. `refused` is the pass's own: false at
    // its beginning, and true while the storage refuses rows. The parameter lock and backup_mutex
    // are held.
    void (*store)(const std::vector<StoredChange>& changes, bool& refused);
    // Ends a pass: afterwards the sidecar matches what is stored. Locks as above.
    void (*seal)();
    // Stores every password of ParamList scrambled, and the switch, in one transaction that is
    // sealed after. False when the file is not fit to be copied over its backup now. Takes the
    // parameter lock and backup_mutex.
    bool (*convertPasswords)();
    // A value that is set in memory only: the file keeps `stored`; and the end of that, by a
    // change that is to be stored. The parameter lock is held.
    void (*keepInMemory)(const std::string& name, const std::string& stored);
    void (*endMemoryOnly)(const std::string& name);
};

void useStorage(const Storage& storage);
const Storage& storage();

} // namespace kelconf
