#include "daemon/live_check.h"

#include "daemon/live_files.h"
#include "db/sqlite_handle.h"
#include "files/live_seal.h"
#include "files/md5_sidecar.h"
#include "log/keldebug.h"
#include "paths.h"

#include <string_view>

namespace kelconf {

namespace {

Reading failedReading(sqlite3* database) {
    const int code = sqlite3_errcode(database);
    const bool passing = code == SQLITE_BUSY || code == SQLITE_LOCKED || code == SQLITE_NOMEM;
    return passing ? Reading::kUnreadable : Reading::kFaulty;
}

} // namespace

// The first read of a connection rolls a journal back that a killed writer has left.
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
    switch (readInFull(paths::kLiveDb)) {
    case Reading::kUnreadable:
        return LiveVerdict::kUnreadable;
    case Reading::kFaulty:
        return LiveVerdict::kDamaged;
    case Reading::kComplete:
        break;
    }
    switch (judgeLiveSeal()) {
    case LiveSeal::kMatches:
        return LiveVerdict::kSound;
    case LiveSeal::kWrittenSince:
        return LiveVerdict::kRecovered;
    case LiveSeal::kBroken:
        break;
    }
    return LiveVerdict::kDamaged;
}

void logVerdict(LiveVerdict verdict) {
    switch (verdict) {
    case LiveVerdict::kSound:
        keldebug(kLogInfo, kToBoth, "live database sound\n");
        break;
    case LiveVerdict::kRecovered:
        keldebug(kLogWarning, kToBoth, "live database recovered from an interrupted write\n");
        break;
    case LiveVerdict::kDamaged:
        keldebug(kLogError, kToBoth, "live database damaged\n");
        break;
    case LiveVerdict::kMissing:
        keldebug(kLogWarning, kToBoth, "live database missing\n");
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
