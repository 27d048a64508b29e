// Several rows of the live database as one change, and what tells how its rows are to be read: the
// application's number in the file's header.
//
// Connections, locks and logging are as in db/live_db.h.
#pragma once

#include "db/sqlite_handle.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kelconf {

// A connection to the database at `path` that keeps its values from being changed, by any process,
// until it is closed. Null when another process has locked the file, or there is no table.
Database holdForReading(const char* path);

struct LiveRow {
    std::string name;
    std::string value; // as it is, no quote doubled
};

// The application's number in the header of the file at `path` (PRAGMA user_version); it travels
// with every copy. -1 when it cannot be read.
std::int64_t readUserVersion(const char* path);

// The value of a row, or of none. Null also when it cannot be read.
std::optional<std::string> readLiveValue(const char* name);

// The name and the type of each row of the database at `path`, as far as it can be read.
void visitTypes(const char* path,
                const std::function<void(std::string_view name, std::string_view type)>& visit);

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

// Makes a database with its table, these rows and the header's number at `path`, where there is no
// file yet. False when the storage refuses; what was begun is left.
bool makeDatabase(const char* path, const std::vector<NewRow>& rows,
                  std::int32_t (*version_of)(std::int64_t));

} // namespace kelconf
