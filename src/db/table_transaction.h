// The transaction of those who fill a table: open, PRAGMA, BEGIN, rows, END.
#pragma once

#include "db/sqlite_handle.h"

#include <cstdint>
#include <functional>

namespace kelconf {

inline constexpr const char* kSynchronousNormal = "PRAGMA synchronous = NORMAL";

// What is logged when a step fails.
struct StepRecord {
    std::uint8_t level;
    const char* text;
    bool with_reason; // SQLite's message follows
};

struct TransactionRecords {
    StepRecord open, pragma, begin, end;
    bool notes_fault; // a failed step is also noted (files/storage_fault.h)
};

// Has `write` put its rows in. `ready`, unless null, comes before BEGIN. A step that fails is
// logged, and the next is tried all the same, but after a failed open. 0 then, else 1.
std::int32_t writeInTransaction(const char* path, const TransactionRecords& records,
                                const std::function<void(sqlite3*)>& write,
                                void (*ready)(sqlite3* database) = nullptr);

} // namespace kelconf
