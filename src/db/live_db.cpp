#include "db/live_db.h"

#include "db/live_statements.h"
#include "db/table_transaction.h"
#include "db/update_retries.h"
#include "log/keldebug.h"
#include "paths.h"

#include <cstring>
#include <string>

namespace kelconf {

namespace {

constexpr std::string_view kProbe = "SELECT NAME=? from CONFIG;";
constexpr const char* kSelectAll = "SELECT * from CONFIG";

constexpr TransactionRecords kRecords = {{kLogInfo, "Can't open database: ", true},
                                         {kLogInfo, "PRAGMA NORMAL error:", true},
                                         {kLogError, "begin trans error:", true},
                                         {kLogError, "end trans error:", true},
                                         false};

constexpr int kAttempts = 10;

// The value that a literal with this text between its quotes has.
std::string withoutDoubledQuotes(const char* text) {
    std::string value;
    for (const char* c = text; *c != '\0'; ++c) {
        value += *c;
        if (c[0] == '\'' && c[1] == '\'') {
            ++c;
        }
    }
    return value;
}

// Commits when BEGIN succeeded. A statement that ran without a transaction is committed already.
bool endTransaction(sqlite3* database, bool begun) {
    return !begun || execute(database, "END TRANSACTION");
}

} // namespace

void createSQLTable() {
    const OpenedDatabase database = openDatabase(paths::kLiveDb);
    if (execute(database.handle.get(), kCreateLiveTable)) {
        keldebug(kLogInfo, kToBoth, "Table created successfully\n");
    }
}

std::int32_t insertSQLEntry(const char* name, const char* value, const char* type) {
    if (name == nullptr || value == nullptr || type == nullptr) {
        return 0;
    }
    const auto insert_row = [&](sqlite3* database) {
        const Statement insert = prepare(database, kInsertLiveRow);
        if (!insertRow(insert.get(), name, value, type)) {
            logStatementError(database);
        }
    };
    return writeInTransaction(paths::kLiveDb, kRecords, insert_row);
}

std::int32_t updateSQLEntry(const char* name, const char* value) {
    if (name == nullptr || value == nullptr) {
        return 0;
    }
    const OpenedDatabase database = openLogged(paths::kLiveDb);
    sqlite3* handle = database.handle.get();
    if (!database.opened) {
        return 0;
    }
    setSynchronous(handle);
    std::string plain;
    if (std::strchr(value, '\'') != nullptr) {
        plain = withoutDoubledQuotes(value);
        value = plain.c_str();
    }
    const bool begun = execute(handle, "BEGIN TRANSACTION");
    bool stored = false;
    { // finalised before the connection is closed
        const Statement update = prepare(handle, kUpdateLiveRow);
        stored = updateRow(handle, update.get(), name, value);
    }
    return endTransaction(handle, begun) && stored ? 1 : 0;
}

std::int32_t robustUpdateSQLEntry(const char* name, const char* value) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (updateSQLEntry(name, value) == 1) {
            return 1;
        }
        if (!pauseBeforeRetry()) {
            break;
        }
    }
    return 0;
}

std::int32_t syncSQLDB() {
    const OpenedDatabase database = openLogged(paths::kLiveDb);
    if (!database.opened) {
        return 0;
    }
    setSynchronous(database.handle.get());
    return 1;
}

std::int32_t querySQLTable(const char* name) {
    if (name == nullptr) {
        return 0;
    }
    const OpenedDatabase database = openLogged(paths::kLiveDb);
    if (!database.opened) {
        return 0;
    }
    const Statement probe = prepare(database.handle.get(), kProbe);
    if (!probe) {
        return 0;
    }
    bindText(probe.get(), 1, name);
    int status = SQLITE_ROW;
    while (status == SQLITE_ROW) {
        status = sqlite3_step(probe.get());
    }
    return status == SQLITE_DONE ? 1 : 0;
}

std::int32_t checkDataBaseIntegrity(const char* path) {
    keldebug(kLogInfo, kToBoth, "checking %s integrity\n", path);
    const OpenedDatabase database = openLogged(path);
    if (!database.opened) {
        return 0;
    }
    if (!execute(database.handle.get(), kSelectAll)) {
        keldebug(kLogInfo, kToBoth, "SQL error: %s\n", database.message());
        return 0;
    }
    return 1;
}

} // namespace kelconf
