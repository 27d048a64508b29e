#include "db/live_statements.h"

#include "log/keldebug.h"
#include "text/text.h"

namespace kelconf {

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
    if (!execute(database, kSynchronousNormal)) {
        keldebug(kLogError, kToBoth, "PRAGMA sync full error:%s\n", sqlite3_errmsg(database));
    }
}

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

bool insertRow(sqlite3_stmt* insert, const char* name, const char* value, const char* type) {
    if (insert == nullptr) {
        return false;
    }
    bindText(insert, 1, name);
    bindText(insert, 2, value);
    bindText(insert, 3, type);
    return runOnce(insert);
}

std::string_view textOf(sqlite3_stmt* row, int column) {
    return viewOf(reinterpret_cast<const char*>(sqlite3_column_text(row, column)));
}

} // namespace kelconf
