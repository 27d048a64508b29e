#include "live/live.h"

#include "bus/service_locks.h"
#include "files/backup.h"
#include "live/content.h"
#include "live/files.h"
#include "live/owed.h"
#include "live/password_state.h"
#include "live/renewal.h"
#include "live/seal.h"
#include "live/table.h"
#include "log/keldebug.h"
#include "paths.h"
#include "service/item_queue.h"
#include "service/storage.h"
#include "service/write_back.h"

#include <optional>

namespace kelconf {

namespace {

void tendFile() {
    const CriticalSection lock;
    const BackupSection files;
    renewWhereDue();
    if (!liveFileLost()) {
        resettlePasswords();
        storeFailedChanges();
    }
}

// Where memory and the file are to hold the same, they must: a page that rotted, or a change that
// somebody else made, is not copied over the last good values.
bool holdsWhatItShould() {
    const bool comparable = liveFile() != LiveFile::kUnread && !anyUnstored() && passwordsSettled();
    return sealedAsItStands() && (!comparable || liveFileHoldsMemory());
}

bool fitForBackup() {
    if (liveFileLost() || !LiveLock{}) {
        return false;
    }
    if (holdsWhatItShould()) {
        return true;
    }
    keldebug(kLogError, kToBoth, "live database does not hold the live values\n");
    setLiveFile(LiveFile::kLost);
    renewLiveFile();
    return liveFile() == LiveFile::kWhole;
}

// The queue is emptied first: what waits in it is in memory and not in the file.
bool readyForBackup() {
    const CriticalSection lock;
    if (item_queue_size() > 0) {
        writeParamToFile();
    }
    const BackupSection files;
    return fitForBackup();
}

} // namespace

void connectLiveStore() {
    useStorage({.store = storeChanges,
                .seal = sealChanges,
                .convertPasswords = storeConvertedPasswords,
                .keepInMemory = noteMemoryOnly,
                .endMemoryOnly = endMemoryOnly});
}

bool tendLiveStore(bool backup_due) {
    {
        std::optional<GetAllCriticalSection> requests; // the listings read the switch under it
        if (!passwordsSettled()) {
            requests.emplace();
        }
        tendFile();
    }
    if (!backup_due || backup_pending == 0 || !readyForBackup()) {
        return false;
    }
    createBackupDBTask();
    protectStoredFiles();
    if (!backupHasSameDigest()) {
        backup_pending = 1; // a write failed
    }
    return true;
}

void reportUnstored() {
    const CriticalSection lock;
    if (anyUnstored()) {
        keldebug(kLogError, kToBoth, "%d changes could not be stored\n",
                 static_cast<int>(unstoredChanges().size()));
    }
}

} // namespace kelconf
