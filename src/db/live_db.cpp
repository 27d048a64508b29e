#include "db/live_db.h"

#include "db/sqlite_handle.h"
#include "log/keldebug.h"
#include "paths.h"
#include "service/param_list.h"
#include "text/text.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

namespace kelconf {

namespace {

constexpr const char* kCreateTable =
    "CREATE TABLE CONFIG( NAME  TEXT  PRIMARY KEY  ,VALUE TEXT               ,TYPE  TEXT           "
    ")";
constexpr std::string_view kInsert = "INSERT INTO CONFIG (NAME,VALUE,TYPE) VALUES (?,?,?);";
constexpr std::string_view kUpdate = "UPDATE CONFIG set VALUE = ? where NAME=?;";
constexpr std::string_view kProbe = "SELECT NAME=? from CONFIG;";
constexpr const char* kSelectAll = "SELECT * from CONFIG";
constexpr const char* kSynchronous = "PRAGMA synchronous = NORMAL";

constexpr int kAttempts = 10;
constexpr std::chrono::seconds kPause{1};

struct RetryGate {
    std::mutex mutex;
    std::condition_variable changed;
    bool closed = false; // guarded by mutex
};

RetryGate& retryGate() {
    static RetryGate gate;
    return gate;
}

// False when there is to be no further attempt.
bool pauseBeforeRetry() {
    RetryGate& gate = retryGate();
    std::unique_lock lock{gate.mutex};
    return !gate.changed.wait_for(lock, kPause, [&] { return gate.closed; });
}

void setRetryGate(bool closed) {
    RetryGate& gate = retryGate();
    {
        const std::lock_guard lock{gate.mutex};
        gate.closed = closed;
    }
    gate.changed.notify_all();
}

OpenedDatabase openLogged(const char* path) {
    OpenedDatabase database = openDatabase(path);
    if (!database.opened) {
        keldebug(kLogInfo, kToBoth, "Can't open database: %s\n", database.message());
    }
    return database;
}

void logStatementError(sqlite3* database) {
    keldebug(kLogError, kToBoth, "SQL error: %s\n", sqlite3_errmsg(database));
}

void setSynchronous(sqlite3* database) {
    if (!execute(database, kSynchronous)) {
        keldebug(kLogError, kToBoth, "PRAGMA sync full error:%s\n", sqlite3_errmsg(database));
    }
}

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

// Binds and runs one UPDATE of the connection; logs its failure.
bool updateRow(sqlite3* database, sqlite3_stmt* update, const char* name, const char* value) {
    if (update != nullptr) {
        bindText(update, 1, value);
        bindText(update, 2, name);
        if (runOnce(update)) {
            return true;
        }
    }
    logStatementError(database);
    return false;
}

bool insertRow(sqlite3* database, sqlite3_stmt* insert, const char* name, const char* value,
               const char* type) {
    if (insert != nullptr) {
        bindText(insert, 1, name);
        bindText(insert, 2, value);
        bindText(insert, 3, type);
        if (runOnce(insert)) {
            return true;
        }
    }
    logStatementError(database);
    return false;
}

// Commits when BEGIN succeeded. A statement that ran without a transaction is committed already.
bool endTransaction(sqlite3* database, bool begun) {
    return !begun || execute(database, "END TRANSACTION");
}

// A column's text; empty for NULL.
std::string_view textOf(sqlite3_stmt* row, int column) {
    return viewOf(reinterpret_cast<const char*>(sqlite3_column_text(row, column)));
}

void appendRow(sqlite3_stmt* row) {
    const int columns = sqlite3_column_count(row);
    if (columns < 2 || sqlite3_column_type(row, 0) == SQLITE_NULL) {
        return;
    }
    ParamElement element;
    initParamElement(&element);
    element.name = newText(textOf(row, 0));
    element.value = newText(textOf(row, 1));
    if (columns > 2 && textOf(row, 2) == "realtime") {
        element.persistent = 0;
    }
    if (element.name == nullptr || element.value == nullptr || addParamElement(&element) != 1) {
        freeText(element.name);
        freeText(element.value);
    }
}

// False when the scan did not complete.
bool forEachRow(sqlite3* database, void (*visit)(sqlite3_stmt*)) {
    const Statement select = prepare(database, kSelectAll);
    if (!select) {
        return false;
    }
    int status = SQLITE_ROW;
    while ((status = sqlite3_step(select.get())) == SQLITE_ROW) {
        visit(select.get());
    }
    return status == SQLITE_DONE;
}

// -1 when it cannot be read.
std::int64_t readNumber(sqlite3* database, std::string_view sql) {
    const Statement query = prepare(database, sql);
    return query && sqlite3_step(query.get()) == SQLITE_ROW ? sqlite3_column_int64(query.get(), 0)
                                                            : -1;
}

// Ends the transaction with the header's number set. False, with the reason logged, when it fails.
bool commitMarked(sqlite3* database, std::int32_t (*version_of)(std::int64_t)) {
    const std::int64_t count = readNumber(database, "SELECT count(*) FROM CONFIG");
    // A pragma takes no bound value; this one is a number of ours.
    const std::string mark = "PRAGMA user_version = " + std::to_string(version_of(count));
    if (count < 0 || !execute(database, mark.c_str()) || !execute(database, "END TRANSACTION")) {
        logStatementError(database);
        return false;
    }
    return true;
}

bool storeOnce(const std::vector<LiveRow>& rows, std::int32_t (*version_of)(std::int64_t)) {
    const OpenedDatabase database = openLogged(paths::kLiveDb);
    sqlite3* handle = database.handle.get();
    if (!database.opened) {
        return false;
    }
    setSynchronous(handle);
    if (!execute(handle, "BEGIN TRANSACTION")) {
        logStatementError(handle);
        return false;
    }
    const Statement update = prepare(handle, kUpdate);
    for (const LiveRow& row : rows) {
        if (!updateRow(handle, update.get(), row.name.c_str(), row.value.c_str())) {
            return false; // closing the connection abandons the transaction
        }
    }
    return commitMarked(handle, version_of);
}

} // namespace

void createSQLTable() {
    const OpenedDatabase database = openDatabase(paths::kLiveDb);
    if (execute(database.handle.get(), kCreateTable)) {
        keldebug(kLogInfo, kToBoth, "Table created successfully\n");
    }
}

std::int32_t insertSQLEntry(const char* name, const char* value, const char* type) {
    if (name == nullptr || value == nullptr || type == nullptr) {
        return 0;
    }
    const OpenedDatabase database = openLogged(paths::kLiveDb);
    sqlite3* handle = database.handle.get();
    if (!database.opened) {
        return 0;
    }
    if (!execute(handle, kSynchronous)) {
        keldebug(kLogInfo, kToBoth, "PRAGMA NORMAL error:%s\n", sqlite3_errmsg(handle));
    }
    const bool begun = execute(handle, "BEGIN TRANSACTION");
    if (!begun) {
        keldebug(kLogError, kToBoth, "begin trans error:%s\n", sqlite3_errmsg(handle));
    }
    const Statement insert = prepare(handle, kInsert);
    insertRow(handle, insert.get(), name, value, type);
    if (!endTransaction(handle, begun)) {
        keldebug(kLogError, kToBoth, "end trans error:%s\n", sqlite3_errmsg(handle));
    }
    return 1;
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
        const Statement update = prepare(handle, kUpdate);
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

void endUpdateRetries() {
    setRetryGate(true);
}

void allowUpdateRetries() {
    setRetryGate(false);
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

void loadSQLDB() {
    loadDatabaseFile(paths::kLiveDb);
}

void loadDatabaseFile(const char* path) {
    {
        const OpenedDatabase database = openLogged(path);
        if (!database.opened) {
            return;
        }
        if (!forEachRow(database.handle.get(), appendRow)) {
            keldebug(kLogInfo, kToBoth, "SQL error: %s\n", database.message());
        }
    }
    sortParamList();
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

std::int64_t readUserVersion(const char* path) {
    const OpenedDatabase database = openDatabase(path);
    return database.opened ? readNumber(database.handle.get(), "PRAGMA user_version") : -1;
}

std::optional<std::string> readLiveValue(const char* name) {
    const OpenedDatabase database = openDatabase(paths::kLiveDb);
    const Statement query = prepare(database.handle.get(), "SELECT VALUE FROM CONFIG WHERE NAME=?");
    if (!query) {
        return {};
    }
    bindText(query.get(), 1, name);
    if (sqlite3_step(query.get()) != SQLITE_ROW) {
        return {};
    }
    return std::string{textOf(query.get(), 0)};
}

std::vector<std::string> namesFrom(const char* path, std::int64_t offset) {
    std::vector<std::string> names;
    const OpenedDatabase database = openDatabase(path);
    const Statement query =
        prepare(database.handle.get(), "SELECT NAME FROM CONFIG ORDER BY rowid LIMIT -1 OFFSET ?");
    if (query) {
        sqlite3_bind_int64(query.get(), 1, offset);
        while (sqlite3_step(query.get()) == SQLITE_ROW) {
            names.emplace_back(textOf(query.get(), 0));
        }
    }
    return names;
}

bool storeTogether(const std::vector<LiveRow>& rows, std::int32_t (*version_of)(std::int64_t),
                   int attempts) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (storeOnce(rows, version_of)) {
            return true;
        }
        if (!pauseBeforeRetry()) {
            break;
        }
    }
    return false;
}

bool makeTable(const std::vector<NewRow>& rows, std::int32_t (*version_of)(std::int64_t)) {
    const OpenedDatabase database = openDatabase(paths::kLiveDb);
    sqlite3* handle = database.handle.get();
    if (!database.opened || !execute(handle, kSynchronous) ||
        !execute(handle, "BEGIN TRANSACTION") || !execute(handle, kCreateTable)) {
        return false;
    }
    const Statement insert = prepare(handle, kInsert);
    for (const NewRow& row : rows) {
        if (!insertRow(handle, insert.get(), row.name.c_str(), row.value.c_str(),
                       row.type.c_str())) {
            return false;
        }
    }
    return commitMarked(handle, version_of);
}

} // namespace kelconf
