#include "db/live_rows.h"

#include "db/live_statements.h"
#include "db/update_retries.h"
#include "paths.h"

#include <utility>

namespace kelconf {

namespace {

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
    const Statement update = prepare(handle, kUpdateLiveRow);
    for (const LiveRow& row : rows) {
        if (!updateRow(handle, update.get(), row.name.c_str(), row.value.c_str())) {
            return false; // closing the connection abandons the transaction
        }
    }
    return commitMarked(handle, version_of);
}

} // namespace

std::int64_t readUserVersion(const char* path) {
    const OpenedDatabase database = openDatabase(path);
    return database.opened ? readNumber(database.handle.get(), "PRAGMA user_version") : -1;
}

Database holdForReading(const char* path) {
    OpenedDatabase database = openDatabase(path);
    sqlite3* handle = database.handle.get();
    const bool held = database.opened && execute(handle, "BEGIN") &&
                      execute(handle, "SELECT NAME FROM CONFIG LIMIT 1");
    return held ? std::move(database.handle) : Database{};
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

void visitTypes(const char* path,
                const std::function<void(std::string_view, std::string_view)>& visit) {
    const OpenedDatabase database = openDatabase(path);
    const Statement query = prepare(database.handle.get(), "SELECT NAME,TYPE FROM CONFIG");
    while (query && sqlite3_step(query.get()) == SQLITE_ROW) {
        visit(textOf(query.get(), 0), textOf(query.get(), 1));
    }
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

bool makeDatabase(const char* path, const std::vector<NewRow>& rows,
                  std::int32_t (*version_of)(std::int64_t)) {
    const OpenedDatabase database = openDatabase(path);
    sqlite3* handle = database.handle.get();
    if (!database.opened || !execute(handle, kLiveSynchronous) ||
        !execute(handle, "BEGIN TRANSACTION") || !execute(handle, kCreateLiveTable)) {
        return false;
    }
    const Statement insert = prepare(handle, kInsertLiveRow);
    for (const NewRow& row : rows) {
        if (!insertRow(handle, insert.get(), row.name.c_str(), row.value.c_str(),
                       row.type.c_str())) {
            return false;
        }
    }
    return commitMarked(handle, version_of);
}

} // namespace kelconf
