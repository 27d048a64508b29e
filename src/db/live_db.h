// The live database: the current value of every stored parameter, in table CONFIG of
// /mnt/nand/conf/conf.db (docs/file-formats.md). Loading it is in live/load.h.
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

// Up to ten attempts of updateSQLEntry, with a second's pause after each failed one
// (db/update_retries.h).
std::int32_t robustUpdateSQLEntry(const char* name, const char* value);

// Opens the file and sets its connection to synchronous = NORMAL, which ends with it. 1 when the
// database could be opened.
std::int32_t syncSQLDB();

// 1 when CONFIG can be read, whether or not it holds the name.
std::int32_t querySQLTable(const char* name);

// 1 when the database at `path` opens and a full scan of CONFIG completes.
std::int32_t checkDataBaseIntegrity(const char* path);

} // namespace kelconf
