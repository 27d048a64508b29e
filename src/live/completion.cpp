#include "live/completion.h"

#include "builders/conf_builders.h"
#include "files/md5_sidecar.h"
#include "files/storage_fault.h"
#include "live/password_state.h"
#include "live/rows.h"
#include "live/seal.h"
#include "log/keldebug.h"
#include "paths.h"
#include "tree/xitem.h"

#include <cstdlib>
#include <set>
#include <string>

namespace kelconf {

namespace {

// A foreign tool may have left the file in the write-ahead mode, whose commits the seal cannot see.
void useRollbackJournal() {
    const OpenedDatabase database = openDatabase(paths::kLiveDb);
    execute(database.handle.get(), "PRAGMA journal_mode = DELETE");
}

void settleIfWritten() {
    if (!untouchedSinceSealing()) {
        settleLiveDatabase();
    }
}

bool namesAreMissing() {
    std::set<std::string, std::less<>> stored;
    visitRows(paths::kLiveDb, [&](std::string_view name, std::string_view /*value*/,
                                  std::string_view /*type*/) { stored.emplace(name); });
    bool missing = false;
    const bool parsed = visitLiveItems(
        [&](const xitem& item) { missing = missing || !stored.contains(item.name); });
    if (!parsed) {
        std::exit(EXIT_SUCCESS); // as its builder does
    }
    return missing;
}

void addNames() {
    initXitemList();
    createConf(settleLiveDatabase);
    settleIfWritten();
    if (extTreeFileExist()) {
        initXitemList();
        createExtConf(settleLiveDatabase);
        settleIfWritten();
    }
}

} // namespace

// The builders add rows only to a marked file: rows without a mark would be read like the old ones.
void completeLiveDatabase(bool fresh) {
    clearStorageFault();
    useRollbackJournal();
    settleIfWritten();
    markPasswordState(fresh);
    const bool marked = passwordMarkOf(readUserVersion(paths::kLiveDb)).present;
    if (!marked) {
        keldebug(kLogError, kToBoth, "live database cannot be written, no names added\n");
        noteStorageFault();
    }
    if (namesAreMissing() && marked) {
        addNames();
    }
    if (storageFaultNoted()) {
        keldebug(kLogError, kToBoth, "storage failed, names may be missing\n");
    }
}

} // namespace kelconf
