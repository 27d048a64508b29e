#include "db/sqlite_handle.h"

namespace kelconf {

OpenedDatabase openDatabase(const char* path) {
    sqlite3* handle = nullptr;
    const int status = sqlite3_open(path, &handle);
    return {Database{handle}, status == SQLITE_OK};
}

bool execute(sqlite3* database, const char* sql) {
    return sqlite3_exec(database, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

Statement prepare(sqlite3* database, std::string_view sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, sql.data(), static_cast<int>(sql.size()), &statement, nullptr);
    return Statement{statement};
}

void bindText(sqlite3_stmt* statement, int position, const char* text) {
    sqlite3_bind_text(statement, position, text, -1, SQLITE_STATIC);
}

bool runOnce(sqlite3_stmt* statement) {
    const bool done = sqlite3_step(statement) == SQLITE_DONE;
    // The reset repeats the step's failure, so the connection's message stays the reason.
    return sqlite3_reset(statement) == SQLITE_OK && done;
}

bool failedByConstraint(sqlite3* database) {
    return sqlite3_errcode(database) == SQLITE_CONSTRAINT;
}

} // namespace kelconf
