// The default database: the factory value and the attributes of every parameter, in table
// CONFIGDEFAULT of /mnt/nand/conf/default.db (docs/file-formats.md).
//
// The file is built whole, never patched: created empty, filled from xitem_list once for each
// tree, compacted, then sealed by its sidecar. NAME is the primary key: of two items with one
// name the first keeps its row. Each operation opens a connection of its own and closes it.
// Failures are logged and the work goes on; those of the storage are also noted
// (files/storage_fault.h), so that an incomplete database is not sealed.
#pragma once

#include <cstdint>

namespace kelconf {

// Creates the file with an empty CONFIGDEFAULT.
void createDefaultSQLTable();

// Writes every item of xitem_list in one transaction. 1 when the database could be opened,
// whatever happened to single rows; 0 when not.
std::int32_t insertDefaultSQLEntry();

// 1 when the database opens and a full scan of CONFIGDEFAULT completes, else 0. Neither the
// number of rows nor their content is examined. A path without a file is created empty.
std::int32_t checkDefaultDataBaseIntegrity(const char* path);

// Compacts the database file at `path`; serves the default and the live database. A failure
// leaves the file as it was.
void shrinkDB(const char* path);

} // namespace kelconf
