// The live database: the current value of every stored parameter, in table CONFIG of
// /mnt/nand/conf/conf.db (docs/file-formats.md).
//
// Each operation opens a connection of its own, with writes inside one transaction at
// synchronous = NORMAL, and closes it before it returns; no busy timeout is set. Results: 1 done,
// 0 not done. Failures are logged here.
//
// No lock is taken. Closing any descriptor of the file drops SQLite's locks of this process, so
// nobody may open the file by other means (digest, copy) while one of these runs: the callers
// hold the parameter lock and backup_mutex for writes, or are the only thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelconf {

// Creates the table in the file, which is made when absent. A table that exists stays.
void createSQLTable();

// Adds a row. 0 for a null argument or when the database cannot be opened; otherwise 1, also when
// the row was refused (logged).
std::int32_t insertSQLEntry(const char* name, const char* value, const char* type);

// Sets the value of a row, in one attempt. `value` is the text as it would stand between the
// quotes of an SQL literal: each quote of the value is doubled. 1 when the change, if any row has
// that name, is committed.
std::int32_t updateSQLEntry(const char* name, const char* value);

// Up to ten attempts of updateSQLEntry, with a second's pause after each failed one.
std::int32_t robustUpdateSQLEntry(const char* name, const char* value);

// For the end of the service: cuts running pauses short and leaves every update one attempt.
// allowUpdateRetries undoes it.
void endUpdateRetries();
void allowUpdateRetries();

// Opens the file and sets its connection to synchronous = NORMAL, which ends with it. 1 when the
// database could be opened.
std::int32_t syncSQLDB();

// 1 when CONFIG can be read, whether or not it holds the name.
std::int32_t querySQLTable(const char* name);

// Appends every row to ParamList (initialised before) and sorts it.
void loadSQLDB();
// The same from the database at `path`: a copy, while the live one cannot be read.
void loadDatabaseFile(const char* path);

// 1 when the database at `path` opens and a full scan of CONFIG completes.
std::int32_t checkDataBaseIntegrity(const char* path);

// ---- Several rows as one change -----------------------------------------------------------------

struct LiveRow {
    std::string name;
    std::string value; // as it is, no quote doubled
};

// The application's number in the header of the file at `path` (PRAGMA user_version); it travels
// with every copy. -1 when it cannot be read.
std::int64_t readUserVersion(const char* path);

// The value of a row, or of none.
std::optional<std::string> readLiveValue(const char* name);

// The names of all rows but the first `offset` of the database at `path`, in the order of
// insertion.
std::vector<std::string> namesFrom(const char* path, std::int64_t offset);

// Stores all rows, and the header's number that `version_of` gives for the table's row count, in
// one transaction: all of it or nothing. Up to `attempts` tries, with a second's pause after each
// failed one.
bool storeTogether(const std::vector<LiveRow>& rows, std::int32_t (*version_of)(std::int64_t),
                   int attempts);

struct NewRow {
    std::string name;
    std::string value;
    std::string type;
};

// Makes a table that is missing, with these rows and the header's number, in one transaction.
// False, with nothing changed, when there is a table already or the storage refuses.
bool makeTable(const std::vector<NewRow>& rows, std::int32_t (*version_of)(std::int64_t));

} // namespace kelconf
