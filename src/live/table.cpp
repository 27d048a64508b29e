#include "live/table.h"

#include "db/live_db.h"
#include "files/backup.h"
#include "files/md5_sidecar.h"
#include "live/content.h"
#include "live/owed.h"
#include "live/renewal.h"
#include "live/rows.h"
#include "live/seal.h"
#include "log/keldebug.h"
#include "paths.h"

#include <string>

namespace kelconf {

namespace {

// The text between the quotes of an SQL literal.
std::string withDoubledQuotes(std::string_view value) {
    std::string text;
    text.reserve(value.size());
    for (const char c : value) {
        text += c;
        if (c == '\'') {
            text += c;
        }
    }
    return text;
}

using Update = std::int32_t (*)(const char*, const char*);

bool updateStored(Update update, const StoredChange& change) {
    const std::string stored = storedForm(change.name.c_str(), change.value);
    return update(change.name.c_str(), withDoubledQuotes(stored).c_str()) == 1;
}

void noteAllUnstored(const std::vector<StoredChange>& changes) {
    for (const StoredChange& change : changes) {
        noteUnstored(change.name, change.value);
    }
}

std::vector<LiveRow> rowsOf(const std::vector<StoredChange>& changes) {
    std::vector<LiveRow> rows;
    rows.reserve(changes.size());
    for (const StoredChange& change : changes) {
        rows.push_back({change.name, storedForm(change.name.c_str(), change.value), {}});
    }
    return rows;
}

bool storeInOneTransaction(const std::vector<StoredChange>& changes) {
    if (!storeTogether(rowsOf(changes), nullptr)) {
        return false;
    }
    for (const StoredChange& change : changes) {
        noteStored(change.name, change.value);
    }
    return true;
}

// Every row finds the file sealed: a transaction that was committed and one that is cut short must
// not come together.
bool storeRowByRow(const std::vector<StoredChange>& changes, bool refused) {
    bool unsealed = false;
    for (const StoredChange& change : changes) {
        if (unsealed && !settleLiveDatabase()) {
            noteUnstored(change.name, change.value);
            continue;
        }
        refused = !updateStored(refused ? updateSQLEntry : robustUpdateSQLEntry, change);
        unsealed = !refused;
        (refused ? noteUnstored : noteStored)(change.name, change.value);
    }
    return refused;
}

} // namespace

void storeChanges(const std::vector<StoredChange>& changes, bool& refused) {
    if (liveFileLost()) {
        noteAllUnstored(changes);
        refused = true;
    } else if (changes.size() == 1 || refused || !storeInOneTransaction(changes)) {
        refused = storeRowByRow(changes, refused);
    }
}

void sealChanges() {
    if (liveFile() == LiveFile::kLost || liveFile() == LiveFile::kIncomplete) {
        renewLiveFile();
    }
    if (liveFile() != LiveFile::kLost) {
        sealLiveDatabase();
    } else {
        checkHash(paths::kLiveDb); // for its record
    }
}

void storeFailedChanges() {
    if (!anyUnstored() || liveFileLost()) {
        return;
    }
    const std::vector<StoredChange> changes = unstoredChanges();
    if (!storeInOneTransaction(changes)) {
        storeRowByRow(changes, true);
    }
    settleLiveDatabase();
    backup_pending = 1;
    if (anyUnstored()) {
        return;
    }
    keldebug(kLogInfo, kToBoth, "live database: changes that had failed are stored\n");
}

} // namespace kelconf
