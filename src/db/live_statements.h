// What the operations on table CONFIG have in common: its statements, and the calls that log their
// failures in the words of these operations. For
// db/live_db.cpp, live/rows.cpp and the builders.
#pragma once

#include "db/table_transaction.h"

#include <string_view>

namespace kelconf {

inline constexpr const char* kCreateLiveTable =
    "CREATE TABLE CONFIG( NAME  TEXT  PRIMARY KEY  ,VALUE TEXT               ,TYPE  TEXT           "
    ")";
inline constexpr std::string_view kInsertLiveRow =
    "INSERT INTO CONFIG (NAME,VALUE,TYPE) VALUES (?,?,?);";
inline constexpr std::string_view kUpdateLiveRow = "UPDATE CONFIG set VALUE = ? where NAME=?;";

OpenedDatabase openLogged(const char* path);
void logStatementError(sqlite3* database);
// Sets the connection to kSynchronousNormal.
void setSynchronous(sqlite3* database);

// Bind and run a statement that was prepared from the texts above, null when it could not be. The
// insertion leaves its failure to be logged by the caller.
bool updateRow(sqlite3* database, sqlite3_stmt* update, const char* name, const char* value);
bool insertRow(sqlite3_stmt* insert, const char* name, const char* value, const char* type);

// A column's text; empty for NULL.
std::string_view textOf(sqlite3_stmt* row, int column);

} // namespace kelconf
