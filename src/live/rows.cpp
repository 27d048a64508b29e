#include "live/rows.h"

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
                                                            : kUnreadNumber;
}

bool writeMark(sqlite3* database, VersionOf version_of) {
    const std::int64_t count = readNumber(database, "SELECT count(*) FROM CONFIG");
    // A pragma takes no bound value; this one is a number of ours.
    const std::string mark = "PRAGMA user_version = " + std::to_string(version_of(count));
    return count >= 0 && execute(database, mark.c_str());
}

// Ends the transaction, with the header's number set. False, with the reason logged, when it fails.
bool commitMarked(sqlite3* database, VersionOf version_of) {
    if ((version_of != nullptr && !writeMark(database, version_of)) ||
        !execute(database, "END TRANSACTION")) {
        logStatementError(database);
        return false;
    }
    return true;
}

} // namespace

std::int64_t readUserVersion(const char* path) {
    const OpenedDatabase database = openDatabase(path);
    return database.opened ? readNumber(database.handle.get(), "PRAGMA user_version")
                           : kUnreadNumber;
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

bool visitRows(const char* path, const RowVisit& visit, std::int64_t offset) {
    const OpenedDatabase database = openDatabase(path);
    const Statement query =
        prepare(database.handle.get(),
                "SELECT NAME,VALUE,TYPE FROM CONFIG ORDER BY rowid LIMIT -1 OFFSET ?");
    int status = SQLITE_ERROR;
    if (query && sqlite3_bind_int64(query.get(), 1, offset) == SQLITE_OK) {
        while ((status = sqlite3_step(query.get())) == SQLITE_ROW) {
            if (sqlite3_column_type(query.get(), 0) != SQLITE_NULL) {
                visit(textOf(query.get(), 0), textOf(query.get(), 1), textOf(query.get(), 2));
            }
        }
    }
    return status == SQLITE_DONE;
}

bool storeTogether(const std::vector<LiveRow>& rows, VersionOf version_of) {
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

bool storeTogether(const std::vector<LiveRow>& rows, VersionOf version_of, int attempts) {
    for (int attempt = 1; !storeTogether(rows, version_of); ++attempt) {
        if (attempt == attempts || !pauseBeforeRetry()) {
            return false;
        }
    }
    return true;
}

bool makeDatabase(const char* path, const std::vector<LiveRow>& rows, VersionOf version_of) {
    const OpenedDatabase database = openDatabase(path);
    sqlite3* handle = database.handle.get();
    if (!database.opened || !execute(handle, kSynchronousNormal) ||
        !execute(handle, "BEGIN TRANSACTION") || !execute(handle, kCreateLiveTable)) {
        return false;
    }
    const Statement insert = prepare(handle, kInsertLiveRow);
    for (const LiveRow& row : rows) {
        if (!insertRow(insert.get(), row.name.c_str(), row.value.c_str(), row.type.c_str())) {
            logStatementError(handle);
            return false;
        }
    }
    return commitMarked(handle, version_of);
}

} // namespace kelconf
