#include "live/judge.h"

#include "db/sqlite_handle.h"
#include "files/md5_sidecar.h"
#include "live/files.h"
#include "live/journal.h"
#include "live/seal.h"
#include "log/keldebug.h"
#include "paths.h"

#include <string_view>

namespace kelconf {

namespace {

Reading failedReading(sqlite3* database) {
    switch (sqlite3_errcode(database)) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_NOMEM:
        return Reading::kUnreadable;
    default:
        return Reading::kFaulty;
    }
}

// Before SQLite is let at the file. What a transaction was cut short in was sealed, and is once
// more when it has been rolled back: from then on a counter that is ahead explains nothing, and a
// start that is killed meanwhile must know that as well.
void settleLeftoverJournal() {
    const LiveJournal journal = sealedAsItStands() ? LiveJournal::kNone : lookAtLiveJournal();
    if (journal != LiveJournal::kNone) {
        removeFile(paths::kLiveDbSeal);
    }
    if (journal == LiveJournal::kImplausible) {
        keldebug(kLogError, kToBoth, "journal of the live database damaged, not rolled back\n");
    }
    if (journal != LiveJournal::kUnfinished) {
        removeFile(paths::kLiveDbJournal);
    }
}

LiveVerdict verdictOfSeal() {
    switch (judgeLiveSeal()) {
    case LiveSeal::kMatches:
        return LiveVerdict::kSound;
    case LiveSeal::kWrittenSince:
        return LiveVerdict::kRecovered;
    case LiveSeal::kBroken:
        break;
    }
    return LiveVerdict::kUnproven;
}

} // namespace

Reading readInFull(const char* path) {
    sqlite3* opened = nullptr;
    const int status = sqlite3_open_v2(path, &opened, SQLITE_OPEN_READWRITE, nullptr);
    const Database database{opened};
    if (status != SQLITE_OK) {
        return failedReading(opened);
    }
    const Statement check = prepare(opened, "PRAGMA integrity_check(1)");
    if (!check || sqlite3_step(check.get()) != SQLITE_ROW) {
        return failedReading(opened);
    }
    const auto* finding = reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0));
    if (finding == nullptr || std::string_view{finding} != "ok") {
        return Reading::kFaulty;
    }
    return execute(opened, "SELECT NAME,VALUE,TYPE from CONFIG") ? Reading::kComplete
                                                                 : failedReading(opened);
}

LiveVerdict judgeLiveDatabase() {
    if (!filePresent(paths::kLiveDb)) {
        return LiveVerdict::kMissing;
    }
    if (filePresent(paths::kLiveDbJournal)) {
        const LiveLock alone; // given up before SQLite opens the file
        if (!alone) {
            return LiveVerdict::kUnreadable;
        }
        settleLeftoverJournal();
        if (lookAtLiveJournal() == LiveJournal::kImplausible) {
            return LiveVerdict::kDamaged; // and cannot be removed
        }
    }
    const Reading reading = readInFull(paths::kLiveDb);
    if (filePresent(paths::kLiveDbJournal) && reading != Reading::kComplete) {
        return LiveLock{} ? LiveVerdict::kStuck : LiveVerdict::kUnreadable;
    }
    switch (reading) {
    case Reading::kUnreadable:
        return LiveVerdict::kUnreadable;
    case Reading::kFaulty:
        return LiveVerdict::kDamaged;
    case Reading::kComplete:
        break;
    }
    return verdictOfSeal();
}

void logVerdict(LiveVerdict verdict) {
    switch (verdict) {
    case LiveVerdict::kSound:
        keldebug(kLogInfo, kToBoth, "live database sound\n");
        break;
    case LiveVerdict::kRecovered:
        keldebug(kLogWarning, kToBoth, "live database recovered from an interrupted write\n");
        break;
    case LiveVerdict::kUnproven:
    case LiveVerdict::kDamaged:
        keldebug(kLogError, kToBoth, "live database damaged\n");
        break;
    case LiveVerdict::kMissing:
        keldebug(kLogWarning, kToBoth, "live database missing\n");
        break;
    case LiveVerdict::kStuck:
        keldebug(kLogError, kToBoth, "live database has an unfinished write, storage takes none\n");
        break;
    case LiveVerdict::kUnreadable:
        keldebug(kLogWarning, kToBoth, "live database cannot be read now, waiting\n");
        break;
    }
}

bool backupSound() {
    if (!filePresent(paths::kBackupDb) || !filePresent(paths::kBackupDbMd5)) {
        keldebug(kLogWarning, kToBoth, "no backup of the live database\n");
        return false;
    }
    if (!checkFileMD5(paths::kBackupDb, paths::kBackupDbMd5) ||
        readInFull(paths::kBackupDb) != Reading::kComplete) {
        keldebug(kLogError, kToBoth, "backup of the live database is not sound\n");
        return false;
    }
    return true;
}

} // namespace kelconf
