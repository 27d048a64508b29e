#include "db/default_db.h"

#include "db/table_transaction.h"
#include "files/storage_fault.h"
#include "log/keldebug.h"
#include "paths.h"
#include "tree/xitem.h"

#include <sys/stat.h>

#include <cstring>
#include <string_view>

namespace kelconf {

namespace {

constexpr const char* kCreateTable =
    "CREATE TABLE CONFIGDEFAULT( NAME  TEXT  PRIMARY KEY  ,VALUE TEXT               ,TYPE TEXT     "
    "          ,RANGE TEXT           ,STEP TEXT           ,HTTP_ACCESS TEXT           ,OPTIONS "
    "TEXT          )";

constexpr std::string_view kInsert =
    "INSERT INTO CONFIGDEFAULT (NAME,VALUE,TYPE,RANGE,STEP,HTTP_ACCESS,OPTIONS) "
    "VALUES (?,?,?,?,?,?,?); ";

constexpr TransactionRecords kRecords = {{kLogInfo, "Can't open database: ", true},
                                         {kLogError, "PRAGMA NORMAL error:", true},
                                         {kLogError, "begin trans error", false},
                                         {kLogError, "end trans error", false},
                                         true};

// Largest default database, in bytes, whose rollback journal is kept in memory.
constexpr off_t kMaxMemoryJournal = 64 << 20;

// The default database is built anew when its build is cut short, so its journal serves
// failures of single statements only, never a power loss. In memory it costs no flush (on file
// two or three a transaction, and one more each time the page cache overflows) and leaves
// nothing beside the database. A file too large for that keeps its journal on flash; so it does
// when the setting fails.
void keepJournalInMemory(sqlite3* database, const char* path) {
    struct stat info {};
    if (stat(path, &info) == 0 && info.st_size <= kMaxMemoryJournal) {
        execute(database, "PRAGMA journal_mode = MEMORY");
    }
}

// One row, in the statement's column order: HTTP_ACCESS stands before OPTIONS.
bool insertItem(sqlite3_stmt* insert, const xitem& item) {
    int column = 0;
    for (const char* text : {item.name, item.value, item.type, item.range, item.step,
                             item.http_access, item.options}) {
        bindText(insert, ++column, text);
    }
    return runOnce(insert);
}

void insertItems(sqlite3* database) {
    Statement insert;
    for (std::int32_t i = 0; i < CheckXitemListLength(); ++i) {
        if (!insert) {
            insert = prepare(database, kInsert);
        }
        if (insert && insertItem(insert.get(), *xitemAt(static_cast<std::uint32_t>(i)))) {
            continue;
        }
        keldebug(kLogError, kToBoth, "SQL error: %s\n", sqlite3_errmsg(database));
        if (!failedByConstraint(database)) {
            noteStorageFault();
        }
    }
}

} // namespace

void createDefaultSQLTable() {
    const OpenedDatabase database = openDatabase(paths::kDefaultDb);
    // Nothing to flush yet: the rows' transaction flushes the same file.
    execute(database.handle.get(), "PRAGMA synchronous = OFF");
    keepJournalInMemory(database.handle.get(), paths::kDefaultDb);
    if (execute(database.handle.get(), kCreateTable)) {
        keldebug(kLogInfo, kToBoth, "Table created successfully\n");
    } else {
        noteStorageFault();
    }
}

std::int32_t insertDefaultSQLEntry() {
    const auto ready = [](sqlite3* database) { keepJournalInMemory(database, paths::kDefaultDb); };
    return writeInTransaction(paths::kDefaultDb, kRecords, insertItems, ready);
}

std::int32_t checkDefaultDataBaseIntegrity(const char* path) {
    keldebug(kLogInfo, kToBoth, "checking %s integrity\n", path);
    const OpenedDatabase database = openDatabase(path);
    if (!database.opened) {
        keldebug(kLogInfo, kToBoth, "Can't open database: %s\n", database.message());
        return 0;
    }
    if (!execute(database.handle.get(), "SELECT * from CONFIGDEFAULT")) {
        keldebug(kLogInfo, kToBoth, "SQL error: %s\n", database.message());
        return 0;
    }
    return 1;
}

void shrinkDB(const char* path) {
    const OpenedDatabase database = openDatabase(path);
    if (!database.opened) {
        keldebug(kLogError, kToBoth, "database open error\n");
        noteStorageFault();
        return;
    }
    if (std::strcmp(path, paths::kDefaultDb) == 0) {
        execute(database.handle.get(), kSynchronousNormal);
        keepJournalInMemory(database.handle.get(), path);
    }
    if (!execute(database.handle.get(), "VACUUM")) {
        keldebug(kLogError, kToBoth, "execute vacuum error\n");
        noteStorageFault();
    }
}

} // namespace kelconf
