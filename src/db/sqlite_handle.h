// Owners for SQLite's handles, and the few calls that every database operation makes.
//
// A connection belongs to one operation: it is opened, used and closed in it. No busy timeout
// is set: a lock held elsewhere fails the statement at once. Nothing here logs; the operations
// log SQLite's message in their own words.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string_view>

namespace kelconf {

struct CloseDatabase {
    void operator()(sqlite3* database) const noexcept { sqlite3_close(database); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

struct FinalizeStatement {
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

struct OpenedDatabase {
    Database handle; // also after a failure, for its message; closed all the same
    bool opened;
    // SQLite's message for the connection.
    [[nodiscard]] const char* message() const { return sqlite3_errmsg(handle.get()); }
};

// Opens read-write, creating the file when it is absent.
OpenedDatabase openDatabase(const char* path);

// Runs a fixed statement to its end, rows discarded. False when it failed; sqlite3_errmsg then
// has the reason.
bool execute(sqlite3* database, const char* sql);

// Null when the statement cannot be compiled.
Statement prepare(sqlite3* database, std::string_view sql);

// Binds a text, or NULL for a null pointer, by reference: it must outlive the next step.
void bindText(sqlite3_stmt* statement, int position, const char* text);

// Runs a prepared statement that yields no rows and makes it ready for the next use. False
// when it failed; sqlite3_errmsg then has the reason.
bool runOnce(sqlite3_stmt* statement);

// True when the last failure on the connection refused a row (a duplicate key), as opposed to
// a failure of the storage.
bool failedByConstraint(sqlite3* database);

} // namespace kelconf
