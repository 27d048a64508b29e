#include "daemon/live_database.h"

#include "db/live_db.h"
#include "db/sqlite_handle.h"
#include "files/backup.h"
#include "files/bus_group.h"
#include "files/fd.h"
#include "files/live_seal.h"
#include "files/md5_sidecar.h"
#include "log/keldebug.h"
#include "paths.h"
#include "tree/conf_builders.h"
#include "tree/xitem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kelconf {

namespace {

constexpr const char* kDirectory = "/mnt/nand/conf";
constexpr const char* kReplacement = "/mnt/nand/conf/conf.db.new";
constexpr const char* kReplacementJournal = "/mnt/nand/conf/conf.db.new-journal";
constexpr const char* kEvidence = "/mnt/nand/conf/conf.db.damaged";
constexpr int kLockPatience = 5; // seconds to wait for a process that locks the file
constexpr mode_t kPrivateBits = 0660;

// Files that hold passwords: not for everybody, whatever mode an earlier program gave them.
void narrowMode(const char* path) {
    struct stat info {};
    if (stat(path, &info) == 0) {
        chmod(path, info.st_mode & kPrivateBits);
        shareWithBusGroup(path);
    }
}

void narrowModes() {
    for (const char* path :
         {paths::kLiveDb, paths::kLiveDbJournal, paths::kLiveDbMd5, paths::kLiveDbSeal,
          paths::kBackupDb, paths::kBackupDbMd5, kEvidence}) {
        narrowMode(path);
    }
}

void flushDirectory() {
    const Fd directory{open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (directory) {
        fsync(directory.get());
    }
}

// Reads through SQLite once, which rolls an interrupted transaction back first.
int readStatus() {
    const OpenedDatabase database = openDatabase(paths::kLiveDb);
    return sqlite3_exec(database.handle.get(), "SELECT count(*) FROM sqlite_schema", nullptr,
                        nullptr, nullptr);
}

// Waits for another process to unlock the file. The status of the last read.
int settleJournal() {
    int status = readStatus();
    for (int second = 0; status == SQLITE_BUSY && second < kLockPatience; ++second) {
        keldebug(kLogWarning, kToBoth, "live database is locked by another process, waiting\n");
        sleep(1);
        status = readStatus();
    }
    return status;
}

bool passesIntegrityCheck() {
    const OpenedDatabase database = openDatabase(paths::kLiveDb);
    const Statement check = prepare(database.handle.get(), "PRAGMA integrity_check(1)");
    return check && sqlite3_step(check.get()) == SQLITE_ROW &&
           std::strcmp(reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0)), "ok") ==
               0;
}

bool isSound() {
    switch (judgeLiveSeal()) {
    case LiveSeal::kMatches:
        return checkDataBaseIntegrity(paths::kLiveDb) == 1;
    case LiveSeal::kWrittenSince:
        if (passesIntegrityCheck() && checkDataBaseIntegrity(paths::kLiveDb) == 1) {
            keldebug(kLogWarning, kToBoth,
                     "live database: interrupted after a write, keeping its values\n");
            return true;
        }
        return false;
    case LiveSeal::kBroken:
        break;
    }
    return false;
}

bool backupIsSound() {
    return checkConfBackupFile() && checkConfigBackupDBMD5() &&
           checkDataBaseIntegrity(paths::kBackupDb) == 1;
}

// Puts the file that is in the way aside. Its journal goes first: it must never be rolled into
// another file.
void putAside() {
    unlink(paths::kLiveDbJournal);
    if (std::rename(paths::kLiveDb, kEvidence) == 0) {
        keldebug(kLogError, kToBoth, "live database is damaged, kept as %s\n", kEvidence);
    }
    flushDirectory();
}

// The copy is complete and flushed before it takes the place. False when it cannot be made.
bool restoreBackup() {
    unlink(kReplacementJournal);
    if (copyFile(paths::kBackupDb, kReplacement) != 0 ||
        !checkFileMD5(kReplacement, paths::kBackupDbMd5)) {
        unlink(kReplacement);
        return false;
    }
    putAside();
    if (std::rename(kReplacement, paths::kLiveDb) != 0) {
        return false;
    }
    flushDirectory();
    keldebug(kLogWarning, kToBoth, "live database restored from the backup\n");
    return true;
}

LiveDatabase replaceLiveDatabase() {
    if (backupIsSound() && restoreBackup()) {
        sealLiveDatabase();
        return LiveDatabase::kRestored;
    }
    putAside();
    createSQLTable();
    if (querySQLTable("") != 1) {
        keldebug(kLogError, kToBoth, "live database cannot be made\n");
        return LiveDatabase::kUnusable;
    }
    keldebug(kLogWarning, kToBoth, "live database made new\n");
    return LiveDatabase::kMade;
}

} // namespace

LiveDatabase readyLiveDatabase() {
    unlink(kReplacement);
    narrowModes();
    if (!checkConfFile()) {
        return replaceLiveDatabase();
    }
    const int status = settleJournal();
    if (status == SQLITE_BUSY || status == SQLITE_CANTOPEN || status == SQLITE_IOERR ||
        status == SQLITE_FULL) {
        keldebug(kLogError, kToBoth, "live database cannot be used now: %s\n",
                 sqlite3_errstr(status));
        return LiveDatabase::kUnusable;
    }
    if (isSound()) {
        keldebug(kLogInfo, kToBoth, "live database is sound\n");
        return LiveDatabase::kKept;
    }
    return replaceLiveDatabase();
}

void addNewNames() {
    initXitemList();
    createConf();
    if (extTreeFileExist()) {
        initXitemList();
        createExtConf();
    }
}

} // namespace kelconf
