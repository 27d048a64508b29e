// Several rows of the live database as one change, and what tells how its rows are to be read: the
// application's number in the file's header.
//
// Connections, locks and logging are as in db/live_db.h.
#pragma once

#include "db/sqlite_handle.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf {

// A connection to the database at `path` that keeps its values from being changed, by any process,
// until it is closed. Null when another process has locked the file, or there is no table.
Database holdForReading(const char* path);

struct LiveRow {
    std::string name;
    std::string value; // as it is, no quote doubled
    std::string type;  // for a new row only
};

// The application's number in the header of the file at `path` (PRAGMA user_version); it travels
// with every copy. kUnreadNumber when it cannot be read.
inline constexpr std::int64_t kUnreadNumber = std::numeric_limits<std::int64_t>::min();
std::int64_t readUserVersion(const char* path);

// The value of a row, or of none. Null also when it cannot be read.
std::optional<std::string> readLiveValue(const char* name);

// Name, value and type of each row of the database at `path`, in the order of insertion, but for
// the first `offset`. False when the scan did not complete.
using RowVisit =
    std::function<void(std::string_view name, std::string_view value, std::string_view type)>;
bool visitRows(const char* path, const RowVisit& visit, std::int64_t offset = 0);

// The number for the header by the table's row count.
using VersionOf = std::int32_t (*)(std::int64_t rows);

// Stores all rows, and the header's number where one is given, in one transaction: all of it or
// nothing, in one attempt. The caller seals the file.
bool storeTogether(const std::vector<LiveRow>& rows, VersionOf version_of);
// Up to `attempts` tries, with a second's pause between them.
bool storeTogether(const std::vector<LiveRow>& rows, VersionOf version_of, int attempts);

// Makes a database with its table, these rows and the header's number at `path`, where there is no
// file yet. False when the storage refuses; what was begun is left.
bool makeDatabase(const char* path, const std::vector<LiveRow>& rows, VersionOf version_of);

} // namespace kelconf
