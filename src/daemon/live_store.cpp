#include "daemon/live_store.h"

#include "db/live_db.h"
#include "db/live_rows.h"
#include "db/sqlite_handle.h"
#include "files/backup.h"
#include "files/bus_group.h"
#include "files/fd.h"
#include "files/live_seal.h"
#include "files/md5_sidecar.h"
#include "files/storage_fault.h"
#include "log/keldebug.h"
#include "paths.h"
#include "service/password_state.h"
#include "tree/conf_builders.h"
#include "tree/xitem.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace kelconf {

namespace {

constexpr const char* kDirectory = "/mnt/nand/conf";
constexpr const char* kReplacement = "/mnt/nand/conf/conf.db.new";
constexpr const char* kEvidence = "/mnt/nand/conf/conf.db.damaged";

// What SQLite may leave beside the database.
constexpr std::array kCompanions = {paths::kLiveDbJournal, "/mnt/nand/conf/conf.db-wal",
                                    "/mnt/nand/conf/conf.db-shm"};

constexpr std::array kProtected = {paths::kLiveDb,
                                   paths::kLiveDbMd5,
                                   paths::kLiveDbJournal,
                                   "/mnt/nand/conf/conf.db-wal",
                                   kEvidence,
                                   kReplacement,
                                   paths::kBackupDb,
                                   paths::kBackupDbMd5,
                                   "/mnt/backup/conf/conf_backup.db-journal"};

constexpr mode_t kPrivateMode = 0600;
constexpr mode_t kSharedMode = 0640;

class BackupLock {
  public:
    BackupLock() { pthread_mutex_lock(&backup_mutex); }
    ~BackupLock() { pthread_mutex_unlock(&backup_mutex); }
    BackupLock(const BackupLock&) = delete;
    BackupLock& operator=(const BackupLock&) = delete;
    BackupLock(BackupLock&&) = delete;
    BackupLock& operator=(BackupLock&&) = delete;
};

bool present(const char* path) {
    struct stat info {};
    return lstat(path, &info) == 0;
}

// ---- Looking ------------------------------------------------------------------------------------

enum class Reading { kComplete, kFaulty, kUnreadable };

Reading failedReading(sqlite3* database) {
    const int code = sqlite3_errcode(database);
    const bool passing = code == SQLITE_BUSY || code == SQLITE_LOCKED || code == SQLITE_NOMEM;
    return passing ? Reading::kUnreadable : Reading::kFaulty;
}

// SQLite's check of every page and index, and a scan of the table. The first read of a connection
// rolls a journal back that a killed writer has left.
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

LiveVerdict judge() {
    if (!present(paths::kLiveDb)) {
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

// ---- Replacing ----------------------------------------------------------------------------------

// Failures are logged; the next step finds out what they mean.
void logFailure(const char* doing, const char* path) {
    keldebug(kLogError, kToBoth, "cannot %s %s: %s\n", doing, path, std::strerror(errno));
}

bool flushPath(const char* path, int flags) {
    const Fd file{open(path, flags | O_CLOEXEC)};
    if (file && fsync(file.get()) == 0) {
        return true;
    }
    logFailure("flush", path);
    return false;
}

bool flushDirectory() {
    return flushPath(kDirectory, O_RDONLY | O_DIRECTORY);
}

void removeFile(const char* path) {
    if (unlink(path) != 0 && errno != ENOENT) {
        logFailure("remove", path);
    }
}

// A journal without its database would be rolled into the next one of that name.
void removeCompanions() {
    for (const char* path : kCompanions) {
        removeFile(path);
    }
}

// Only the first: a file that is damaged by every start must not wear the flash, and what a
// replacement leaves that was cut short is no evidence.
void keepEvidence() {
    if (present(kEvidence) || !present(paths::kLiveDb)) {
        return;
    }
    if (rename(paths::kLiveDb, kEvidence) == 0) {
        keldebug(kLogError, kToBoth, "damaged live database kept as %s\n", kEvidence);
    } else {
        logFailure("set aside", paths::kLiveDb);
    }
}

// The copy is what will be used, so the copy is what is examined.
bool copySound(const char* database, const char* sidecar) {
    removeFile(kReplacement);
    if (copyFile(database, kReplacement) == 0 && checkFileMD5(kReplacement, sidecar) &&
        readInFull(kReplacement) == Reading::kComplete) {
        return true;
    }
    removeFile(kReplacement);
    return false;
}

// A complete copy of a sound backup under the name kReplacement, flushed.
bool copySoundBackup() {
    if (!present(paths::kBackupDb) || !present(paths::kBackupDbMd5)) {
        keldebug(kLogWarning, kToBoth, "no backup of the live database\n");
        return false;
    }
    if (!copySound(paths::kBackupDb, paths::kBackupDbMd5)) {
        keldebug(kLogError, kToBoth,
                 "backup of the live database is not sound, or cannot be "
                 "copied\n");
        return false;
    }
    return flushPath(kReplacement, O_RDONLY);
}

void sealIfWritten() {
    // A digest taken before a journal is rolled back is the digest of something else.
    if (present(paths::kLiveDbJournal)) {
        keldebug(kLogError, kToBoth, "unfinished journal, live database not sealed\n");
        return;
    }
    sealLiveDatabase();
}

bool liveTableReadable() {
    return querySQLTable("") == 1;
}

void makeNewDatabase() {
    removeFile(paths::kLiveDb);
    createSQLTable();
    if (liveTableReadable()) {
        keldebug(kLogWarning, kToBoth, "live database made new\n");
    } else {
        keldebug(kLogError, kToBoth, "no live database can be made\n");
    }
}

// Whatever interrupts this leaves a missing file, or one that its old seal does not match and does
// not explain: the next start does it again. Returns whether the file was made new.
bool replaceLiveDatabase() {
    const bool copied = copySoundBackup();
    removeCompanions();
    keepEvidence();
    const bool in_place = copied && rename(kReplacement, paths::kLiveDb) == 0;
    if (in_place) {
        keldebug(kLogWarning, kToBoth, "live database taken from the backup\n");
    } else {
        makeNewDatabase();
    }
    flushDirectory();
    sealIfWritten();
    return !in_place;
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
    }
    if (storageFaultNoted()) {
        keldebug(kLogError, kToBoth, "storage failed, names may be missing\n");
    }
    sealIfWritten();
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

// kUnreadable also when the patience ended, which then is `stopped`.
LiveVerdict awaitVerdict(const Patience& patience, bool& stopped) {
    LiveVerdict verdict = judgeLiveDatabase();
    logVerdict(verdict);
    for (int second = 0; verdict == LiveVerdict::kUnreadable && second < kLockPatience; ++second) {
        stopped = !patience();
        if (stopped) {
            return verdict;
        }
        verdict = judgeLiveDatabase();
        if (verdict != LiveVerdict::kUnreadable) {
            logVerdict(verdict);
        }
    }
    return verdict;
}

// SQLite's locks do not hold off a plain read; the sidecar tells whether what was read is whole.
LiveSource copyUnreadable() {
    if (copySound(paths::kLiveDb, paths::kLiveDbMd5)) {
        keldebug(kLogWarning, kToBoth, "live database is locked, serving a sealed copy of it\n");
        return {.copy = kReplacement, .temporary = true};
    }
    if (copySoundBackup()) {
        keldebug(kLogWarning, kToBoth, "live database cannot be read, serving the backup\n");
        return {.copy = kReplacement, .temporary = true};
    }
    keldebug(kLogError, kToBoth, "live database cannot be read, nothing to serve\n");
    return {};
}

// Nothing could be written: the disk is full or read-only.
LiveSource sourceWithoutFile() {
    if (checkFileMD5(paths::kBackupDb, paths::kBackupDbMd5) &&
        readInFull(paths::kBackupDb) == Reading::kComplete) {
        keldebug(kLogWarning, kToBoth, "no live database, serving the backup\n");
        return {.copy = paths::kBackupDb};
    }
    keldebug(kLogError, kToBoth, "no live database, nothing to serve\n");
    return {};
}

LiveSource readyFile(LiveVerdict verdict) {
    const bool replace = verdict == LiveVerdict::kDamaged || verdict == LiveVerdict::kMissing;
    const bool fresh = replace && replaceLiveDatabase();
    if (fresh && !liveTableReadable()) {
        return sourceWithoutFile();
    }
    protectStoredFiles();
    completeLiveDatabase(fresh);
    protectStoredFiles();
    if (verdict != LiveVerdict::kSound || !present(paths::kBackupDb)) {
        backup_pending = 1;
    }
    return {};
}

void protectFile(const char* path) {
    shareWithBusGroup(path);
    struct stat info {};
    if (lstat(path, &info) != 0 || !S_ISREG(info.st_mode)) {
        return;
    }
    const bool shared = busGroup() == info.st_gid;
    const mode_t mode = shared ? kSharedMode : kPrivateMode;
    if ((info.st_mode & ALLPERMS) != mode && chmod(path, mode) != 0) {
        logFailure("protect", path);
    }
}

} // namespace

LiveVerdict judgeLiveDatabase() {
    const BackupLock lock;
    return judge();
}

LiveSource readyLiveStore(const Patience& patience) {
    bool stopped = false;
    const LiveVerdict verdict = awaitVerdict(patience, stopped);
    if (stopped) {
        return {.stopped = true};
    }
    const BackupLock lock;
    return verdict == LiveVerdict::kUnreadable ? copyUnreadable() : readyFile(verdict);
}

void dropCopy(const LiveSource& source) {
    if (source.temporary) {
        removeFile(source.copy);
    }
}

void protectStoredFiles() {
    for (const char* path : kProtected) {
        protectFile(path);
    }
}

} // namespace kelconf
