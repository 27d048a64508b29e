#include "db/table_transaction.h"

#include "files/storage_fault.h"
#include "log/keldebug.h"

namespace kelconf {

std::int32_t writeInTransaction(const char* path, const TransactionRecords& records,
                                const std::function<void(sqlite3*)>& write,
                                void (*ready)(sqlite3* database)) {
    const OpenedDatabase database = openDatabase(path);
    const auto check = [&](bool done, const StepRecord& record) {
        if (done) {
            return;
        }
        keldebug(record.level, kToBoth, "%s%s\n", record.text,
                 record.with_reason ? database.message() : "");
        if (records.notes_fault) {
            noteStorageFault();
        }
    };
    check(database.opened, records.open);
    if (!database.opened) {
        return 0;
    }
    sqlite3* handle = database.handle.get();
    check(execute(handle, kSynchronousNormal), records.pragma);
    if (ready != nullptr) {
        ready(handle);
    }
    check(execute(handle, "BEGIN TRANSACTION"), records.begin);
    write(handle);
    check(execute(handle, "END TRANSACTION"), records.end);
    return 1;
}

} // namespace kelconf
