#include "live/recovery.h"

#include "db/live_db.h"
#include "files/backup.h"
#include "files/md5_sidecar.h"
#include "live/completion.h"
#include "live/files.h"
#include "live/judge.h"
#include "live/owed.h"
#include "live/replacement.h"
#include "live/rows.h"
#include "live/seal.h"
#include "log/keldebug.h"
#include "paths.h"

#include <cstdint>
#include <optional>
#include <utility>

namespace kelconf {

namespace {

// ---- Replacing ----------------------------------------------------------------------------------

// The copy is what will be used, so the copy is what is examined. Without a sidecar its structure
// has to do.
bool copyToReplacement(const char* database, const char* sidecar) {
    dropReplacement();
    if (copyFile(database, paths::kLiveNew) == 0 &&
        (sidecar == nullptr || checkFileMD5(paths::kLiveNew, sidecar)) &&
        readInFull(paths::kLiveNew) == Reading::kComplete) {
        return true;
    }
    dropReplacement();
    return false;
}

// Good values are worth more than evidence of bad ones.
bool makeRoomFor(std::uint64_t bytes) {
    dropEvidence();
    removeCompanions();
    removeFile(paths::kLiveDbSeal);
    removeFile(paths::kLiveDb);
    return roomFor(bytes);
}

bool replaceByBackup() {
    const std::uint64_t needed = sizeOfFile(paths::kBackupDb);
    const bool copied = copyToReplacement(paths::kBackupDb, paths::kBackupDbMd5);
    if (copied) {
        keepEvidence(Evidence::kMove);
    }
    if ((copied || (!roomFor(needed) && makeRoomFor(needed) &&
                    copyToReplacement(paths::kBackupDb, paths::kBackupDbMd5))) &&
        putReplacementInPlace()) {
        keldebug(kLogWarning, kToBoth, "live database taken from the backup\n");
        return true;
    }
    keldebug(kLogError, kToBoth, "live database cannot be replaced, serving its backup\n");
    return false;
}

// A replacement of memory, which held all that was acknowledged, cut short before it had the name.
bool finishReplacement() {
    if (!replacementWaits()) {
        return false;
    }
    keepEvidence(Evidence::kMove);
    if (!putReplacementInPlace()) {
        return false;
    }
    keldebug(kLogWarning, kToBoth, "live database taken from its finished replacement\n");
    return true;
}

// Values that nothing vouches for are still likelier the owner's than the factory's.
bool useUnprovenFile(LiveVerdict verdict) {
    if (verdict != LiveVerdict::kUnproven) {
        return false;
    }
    keepEvidence(Evidence::kCopy);
    keldebug(kLogError, kToBoth,
             "nothing vouches for the live database and no backup is sound, used as it reads\n");
    settleLiveDatabase();
    return true;
}

bool useUnprovenBackup() {
    if (!filePresent(paths::kBackupDb) || !copyToReplacement(paths::kBackupDb, nullptr)) {
        return false;
    }
    keepEvidence(Evidence::kMove);
    keldebug(kLogError, kToBoth, "nothing vouches for the backup, used as it reads\n");
    return putReplacementInPlace();
}

bool makeNewDatabase() {
    keepEvidence(Evidence::kMove);
    removeCompanions();
    removeFile(paths::kLiveDb);
    if (!filePresent(paths::kLiveDb)) {
        createSQLTable();
        if (querySQLTable("") == 1 && settleLiveDatabase()) {
            keldebug(kLogWarning, kToBoth, "live database made new\n");
            return true;
        }
    }
    keldebug(kLogError, kToBoth, "no live database can be made, serving the trees' defaults\n");
    return false;
}

// ---- Sources ------------------------------------------------------------------------------------

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

LiveSource completeSound() {
    if (checkFileMD5(paths::kLiveDb, paths::kLiveDbMd5)) {
        trustLiveDatabase();
    } else {
        settleLiveDatabase(); // it has the name, but not yet the sidecar
    }
    dropReplacement(); // made by a process that came to its end, and not needed any more
    return complete(false);
}

LiveSource completeRecovered() {
    dropReplacement();
    settleLiveDatabase();
    return complete(false);
}

LiveSource replaceLiveDatabase(LiveVerdict verdict) {
    if (finishReplacement()) {
        return complete(false);
    }
    dropReplacement();
    if (backupSound()) {
        if (replaceByBackup()) {
            return complete(false);
        }
        setLiveFile(LiveFile::kLost);
        return {.origin = LiveOrigin::kBackup, .path = paths::kBackupDb};
    }
    if (useUnprovenFile(verdict) || useUnprovenBackup()) {
        return complete(false);
    }
    if (makeNewDatabase()) {
        return complete(true);
    }
    setLiveFile(LiveFile::kLost);
    return {.origin = LiveOrigin::kTrees};
}

// SQLite's locks do not hold off a plain read; the sidecar tells whether what was read is whole.
bool copyIsSealed() {
    return checkFileMD5(paths::kLiveCopy, paths::kLiveDbMd5) ||
           checkFileMD5(paths::kLiveCopy, paths::kLiveNewMd5);
}

bool copyLiveFile() {
    dropLiveCopy();
    return copyFile(paths::kLiveDb, paths::kLiveCopy) == 0;
}

LiveSource backupInstead() {
    dropLiveCopy();
    if (backupSound()) {
        keldebug(kLogWarning, kToBoth, "live database cannot be read, serving the backup\n");
        setLiveFile(LiveFile::kUnread);
        return {.origin = LiveOrigin::kLiveCopy, .path = paths::kBackupDb};
    }
    keldebug(kLogError, kToBoth, "live database cannot be read, waiting on\n");
    return {};
}

LiveSource copyLocked() {
    if (copyLiveFile() && copyIsSealed() && readInFull(paths::kLiveCopy) == Reading::kComplete) {
        keldebug(kLogWarning, kToBoth, "live database is locked, serving a sealed copy of it\n");
        return {.origin = LiveOrigin::kLiveCopy, .path = paths::kLiveCopy};
    }
    return backupInstead();
}

// The journal is settled in a copy where the storage does not let it be settled in place. The live
// file is then made anew from memory as soon as the storage takes that.
std::optional<LiveSource> copyStuck() {
    const bool sealed = copyLiveFile() && copyIsSealed();
    if (!sealed && copyFile(paths::kLiveDbJournal, paths::kLiveCopyJournal) != 0) {
        return {};
    }
    if (readInFull(paths::kLiveCopy) != Reading::kComplete || !copyIsSealed()) {
        dropLiveCopy();
        return {};
    }
    keldebug(kLogWarning, kToBoth, "live database serves from a copy of it in memory\n");
    setLiveFile(LiveFile::kLost);
    return LiveSource{.origin = LiveOrigin::kLiveCopy, .path = paths::kLiveCopy};
}

LiveSource sourceFor(LiveVerdict verdict) {
    switch (verdict) {
    case LiveVerdict::kUnreadable:
        return {};
    case LiveVerdict::kSound:
        return completeSound();
    case LiveVerdict::kRecovered:
        return completeRecovered();
    case LiveVerdict::kStuck:
        if (auto copy = copyStuck()) {
            return std::move(*copy);
        }
        break;
    case LiveVerdict::kUnproven:
    case LiveVerdict::kDamaged:
    case LiveVerdict::kMissing:
        break;
    }
    return replaceLiveDatabase(verdict);
}

// Tries once. No source when the file is locked.
LiveSource tryToReady(std::optional<LiveVerdict>& logged) {
    const BackupSection lock;
    const LiveVerdict verdict = judgeLiveDatabase();
    if (verdict != std::exchange(logged, verdict)) {
        logVerdict(verdict);
    }
    LiveSource source = sourceFor(verdict);
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
        if (source.origin == LiveOrigin::kNone && second == kLockPatience) {
            const BackupSection lock;
            source = copyLocked();
        }
        if (source.origin != LiveOrigin::kNone || !patience()) {
            return source;
        }
    }
}

void dropLiveCopy() {
    removeFile(paths::kLiveCopy);
    removeFile(paths::kLiveCopyJournal);
}

} // namespace kelconf
