// kelconf-init: makes sure that the factory-default database is present, matches its sidecar
// and can be read, and builds it afresh from the parameter trees when not. One run to
// completion on one thread; arguments and environment are ignored; exit status 0 in every case.

#include "builders/conf_builders.h"
#include "db/default_db.h"
#include "files/md5_sidecar.h"
#include "files/storage_fault.h"
#include "log/keldebug.h"
#include "paths.h"
#include "tree/xitem.h"

#include <malloc.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <exception>

namespace kelconf {
namespace {

// What SQLite may leave beside the database: a rollback journal, a write-ahead log and its index.
constexpr std::array kLeftOvers = {paths::kDefaultDbJournal, paths::kDefaultDbWal,
                                   paths::kDefaultDbShm};

// A finished build leaves nothing beside its file. What lies there would be rolled into the
// database by its next reader, after its digest was found right. Where the storage refuses to
// say, something may lie there.
bool hasLeftOvers() {
    struct stat info {};
    for (const char* path : kLeftOvers) {
        if (lstat(path, &info) == 0 || errno != ENOENT) {
            keldebug(kLogError, kToBoth, "unfinished journal beside the default database\n");
            return true;
        }
    }
    return false;
}

// Settings for one thread and one short life; together worth about a seventh of a build.
void settleLibraries() {
    // SQLite needs no locks here, and nobody asks how much memory it has in use.
    sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    // The document and the items are freed all at once. Texts that went to malloc's fast bins
    // would be swept up anew for each node that is freed between them.
    mallopt(M_MXFAST, 0);
}

bool databaseIsSound() {
    return checkDefaultFile() && checkDefaultConfigDBMD5() && !hasLeftOvers() &&
           checkDefaultDataBaseIntegrity(paths::kDefaultDb) != 0;
}

void removeFile(const char* path) {
    if (unlink(path) != 0 && errno != ENOENT) {
        noteStorageFault();
    }
}

// The left-overs go first: alone, without their database, they could be rolled into the new one.
void removeDatabase() {
    for (const char* path : kLeftOvers) {
        removeFile(path);
    }
    removeFile(paths::kDefaultDb);
}

// An old sidecar could match by chance what a failed build has left: two builds of the same
// rows are the same to the byte, once compacted. Rows that are all there may match it: a compaction
// that fails then loses nothing. Where it cannot be removed, an empty one matches nothing; where
// it cannot be changed at all, there must be nothing that it could match.
void removeSeal() {
    if (unlink(paths::kDefaultDbMd5) != 0 && errno != ENOENT &&
        truncate(paths::kDefaultDbMd5, 0) != 0) {
        unlink(paths::kDefaultDb);
    }
}

void fillFromTrees() {
    initXitemList();
    createDefaultConf();
    keldebug(kLogInfo, kToBoth, "Done creating default DB\n");
    if (extTreeFileExist()) {
        initXitemList();
        createDefaultExtConf();
    }
}

void rebuild() {
    keldebug(kLogInfo, kToBoth, "Creating default database\n");
    removeDatabase();
    createDefaultSQLTable();
    fillFromTrees();
    if (storageFaultNoted()) {
        removeSeal();
    }
    shrinkDB(paths::kDefaultDb);
    if (storageFaultNoted()) {
        checkHash(paths::kDefaultDb); // for its record
        keldebug(kLogError, kToBoth, "default database incomplete, not sealed\n");
        return;
    }
    createFileMD5(paths::kDefaultDb, paths::kDefaultDbMd5);
}

} // namespace
} // namespace kelconf

int main() {
    kelconf::settleLibraries();
    try {
        if (!kelconf::databaseIsSound()) {
            kelconf::rebuild();
        }
    } catch (const std::exception& failure) {
        // Only memory that cannot be had comes here: the database stays unsealed.
        kelconf::keldebug(kelconf::kLogError, kelconf::kToBoth, "build given up: %s\n",
                          failure.what());
    }
    return 0;
}
