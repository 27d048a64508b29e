#include "daemon/live_store.h"

#include "daemon/live_check.h"
#include "daemon/live_files.h"
#include "db/live_db.h"
#include "db/live_rows.h"
#include "files/backup.h"
#include "files/live_seal.h"
#include "files/md5_sidecar.h"
#include "files/storage_fault.h"
#include "log/keldebug.h"
#include "paths.h"
#include "service/password_state.h"
#include "service/unstored.h"
#include "tree/conf_builders.h"
#include "tree/xitem.h"

#include <cstdint>
#include <optional>
#include <utility>

namespace kelconf {

namespace {

void sealIfWritten() {
    // A digest taken before a journal is rolled back is the digest of something else.
    if (filePresent(paths::kLiveDbJournal)) {
        keldebug(kLogError, kToBoth, "unfinished journal, live database not sealed\n");
        return;
    }
    sealLiveDatabase();
}

// ---- Replacing ----------------------------------------------------------------------------------

// The copy is what will be used, so the copy is what is examined.
bool copyToReplacement(const char* database, const char* sidecar) {
    dropReplacement();
    if (copyFile(database, kLiveReplacement) == 0 && checkFileMD5(kLiveReplacement, sidecar) &&
        readInFull(kLiveReplacement) == Reading::kComplete) {
        return true;
    }
    dropReplacement();
    return false;
}

// Good values are worth more than evidence of bad ones.
bool makeRoomFor(std::uint64_t bytes) {
    dropEvidence();
    removeLiveFile();
    return roomFor(bytes);
}

// Whatever interrupts this leaves a missing file, or one that its old seal does not match and does
// not explain: the next start does it again.
bool replaceByBackup() {
    const std::uint64_t needed = sizeOfFile(paths::kBackupDb);
    const bool copied = copyToReplacement(paths::kBackupDb, paths::kBackupDbMd5);
    if (copied) {
        keepEvidence();
    }
    if ((copied || (!roomFor(needed) && makeRoomFor(needed) &&
                    copyToReplacement(paths::kBackupDb, paths::kBackupDbMd5))) &&
        putReplacementInPlace()) {
        keldebug(kLogWarning, kToBoth, "live database taken from the backup\n");
        sealIfWritten();
        return true;
    }
    keldebug(kLogError, kToBoth, "live database cannot be replaced, serving its backup\n");
    return false;
}

bool makeNewDatabase() {
    keepEvidence();
    if (removeLiveFile()) {
        createSQLTable();
        if (querySQLTable("") == 1) {
            keldebug(kLogWarning, kToBoth, "live database made new\n");
            sealIfWritten();
            return true;
        }
    }
    keldebug(kLogError, kToBoth, "no live database can be made, serving the trees' defaults\n");
    return false;
}

// ---- Completing ---------------------------------------------------------------------------------

void addMissingNames() {
    initXitemList();
    createConf();
    if (extTreeFileExist()) {
        initXitemList();
        createExtConf();
    }
}

// A foreign tool may have left the file in the write-ahead mode, whose commits the seal cannot see.
void useRollbackJournal() {
    const OpenedDatabase database = openDatabase(paths::kLiveDb);
    execute(database.handle.get(), "PRAGMA journal_mode = DELETE");
}

// The builders add rows only to a marked file: rows without a mark would be read like the old ones.
void completeLiveDatabase(bool fresh) {
    clearStorageFault();
    useRollbackJournal();
    markPasswordState(fresh);
    if (passwordMarkOf(readUserVersion(paths::kLiveDb)).present) {
        addMissingNames();
    } else {
        keldebug(kLogError, kToBoth, "live database cannot be written, no names added\n");
        noteStorageFault();
    }
    if (storageFaultNoted()) {
        keldebug(kLogError, kToBoth, "storage failed, names may be missing\n");
    }
    sealIfWritten();
}

LiveSource complete(bool fresh) {
    protectStoredFiles();
    completeLiveDatabase(fresh);
    protectStoredFiles();
    // A kill after a pass and before its backup leaves an older one, or none.
    if (!checkFileMD5(paths::kBackupDb, paths::kLiveDbMd5)) {
        backup_pending = 1;
    }
    return {.origin = LiveOrigin::kLiveFile, .path = paths::kLiveDb};
}

LiveSource replaceLiveDatabase() {
    if (backupSound()) {
        if (replaceByBackup()) {
            return complete(false);
        }
        setLiveFile(LiveFile::kLost);
        return {.origin = LiveOrigin::kBackup, .path = paths::kBackupDb};
    }
    if (makeNewDatabase()) {
        return complete(true);
    }
    setLiveFile(LiveFile::kLost);
    return {.origin = LiveOrigin::kTrees};
}

// ---- Locked by another process ------------------------------------------------------------------

// SQLite's locks do not hold off a plain read; the sidecar tells whether what was read is whole.
LiveSource copyLocked() {
    if (copyToReplacement(paths::kLiveDb, paths::kLiveDbMd5)) {
        keldebug(kLogWarning, kToBoth, "live database is locked, serving a sealed copy of it\n");
        return {.origin = LiveOrigin::kLocked, .path = kLiveReplacement, .temporary = true};
    }
    if (backupSound()) {
        keldebug(kLogWarning, kToBoth, "live database cannot be read, serving the backup\n");
        return {.origin = LiveOrigin::kLocked, .path = paths::kBackupDb};
    }
    keldebug(kLogError, kToBoth, "live database cannot be read, waiting on\n");
    return {};
}

// Tries once. Stopped when the file is locked.
LiveSource tryToReady(std::optional<LiveVerdict>& logged) {
    const BackupSection lock;
    const LiveVerdict verdict = judgeLiveDatabase();
    if (verdict != std::exchange(logged, verdict)) {
        logVerdict(verdict);
    }
    if (verdict == LiveVerdict::kUnreadable) {
        return {};
    }
    dropReplacement(); // left by a start that was cut short
    const bool good = verdict == LiveVerdict::kSound || verdict == LiveVerdict::kRecovered;
    LiveSource source = good ? complete(false) : replaceLiveDatabase();
    if (source.origin == LiveOrigin::kLiveFile) {
        source.hold = holdForReading(paths::kLiveDb);
        return source.hold ? std::move(source) : LiveSource{};
    }
    return source;
}

} // namespace

LiveSource readyLiveStore(const Patience& patience) {
    std::optional<LiveVerdict> logged;
    for (int second = 0;; ++second) {
        LiveSource source = tryToReady(logged);
        if (source.origin == LiveOrigin::kStopped && second == kLockPatience) {
            const BackupSection lock;
            source = copyLocked();
        }
        if (source.origin != LiveOrigin::kStopped || !patience()) {
            return source;
        }
    }
}

} // namespace kelconf
