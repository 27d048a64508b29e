#include "builders/conf_builders.h"

#include "db/default_db.h"
#include "db/live_statements.h"
#include "db/table_transaction.h"
#include "files/md5_sidecar.h"
#include "files/storage_fault.h"
#include "log/keldebug.h"
#include "paths.h"
#include "tree/tree_file.h"
#include "tree/tree_walker.h"
#include "tree/xitem.h"

#include <malloc.h>
#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <system_error>

namespace kelconf {

namespace {

constexpr std::string_view kLeftOutPrefix = "ipcam.";

constexpr TransactionRecords kLiveRecords = {{kLogInfo, "Can't open database: ", true},
                                             {kLogInfo, "PRAGMA OFF error", false},
                                             {kLogInfo, "begin trans error", false},
                                             {kLogInfo, "end trans error", false},
                                             true};

void reportWalk(const TreeWalkResult& walk) {
    if (walk.refused > 0) {
        keldebug(kLogError, kToBoth,
                 "tree over the expansion limit: %u elements left out or not repeated, first %s in "
                 "line %ld\n",
                 walk.refused, walk.refused_name.c_str(), walk.refused_line);
    }
    if (walk.out_of_memory) {
        keldebug(kLogError, kToBoth, "out of memory, parameters are missing\n");
        noteStorageFault();
    }
}

// An absent file and a directory need no more words than the message that follows.
void reportUnreadable(const char* tree, int error) {
    if (error != 0 && error != ENOENT && error != EISDIR) {
        keldebug(kLogError, kToBoth, "%s cannot be read: %s\n", tree,
                 std::generic_category().message(error).c_str());
    }
}

// False, with nothing done but the records, when the tree cannot be parsed.
template <typename Write>
bool buildFrom(const char* tree, Write write) {
    int error = 0;
    XmlDoc document = readTreeFile(tree, &error);
    if (!document) {
        reportUnreadable(tree, error);
        keldebug(kLogError, kToBoth, "error: could not parse file ");
        return false;
    }
    reportWalk(parseXmlTree(xmlDocGetRootElement(document.get())));
    write();
    document.reset();
    delXitemList();
    return true;
}

void writeDefaults() {
    insertDefaultSQLEntry();
}

bool belongsToLiveTable(const xitem& item) {
    return strncasecmp(item.name, kLeftOutPrefix.data(), kLeftOutPrefix.size()) != 0;
}

bool insertItem(sqlite3* database, Statement& insert, const xitem& item) {
    if (!insert) {
        insert = prepare(database, kInsertLiveRow);
    }
    return insertRow(insert.get(), item.name, item.value, item.type);
}

void insertLiveRows(sqlite3* database) {
    Statement insert;
    for (std::uint32_t i = 0; const xitem* item = xitemAt(i); ++i) {
        if (belongsToLiveTable(*item) && !insertItem(database, insert, *item) &&
            !failedByConstraint(database)) {
            noteStorageFault();
        }
    }
}

void compactLiveDatabase(bool (*settle)()) {
    malloc_trim(0);
    if (settle == nullptr || settle()) {
        shrinkDB(paths::kLiveDb);
    }
}

} // namespace

int createDefaultConf() {
    if (!buildFrom(paths::kNeutralTree, writeDefaults)) {
        std::exit(EXIT_SUCCESS);
    }
    return malloc_trim(0);
}

void createDefaultExtConf() {
    if (buildFrom(paths::kExtTree, writeDefaults)) {
        malloc_trim(0);
    }
}

void createConf(bool (*settle)()) {
    if (!buildFrom(paths::kNeutralTree, addXItemInDatabase)) {
        std::exit(EXIT_SUCCESS);
    }
    compactLiveDatabase(settle);
}

void createExtConf(bool (*settle)()) {
    if (buildFrom(paths::kExtTree, addXItemInDatabase)) {
        compactLiveDatabase(settle);
    }
}

void addXItemInDatabase() {
    if (writeInTransaction(paths::kLiveDb, kLiveRecords, insertLiveRows) == 1) {
        keldebug(kLogInfo, kToBoth, "insert finishes\n");
    }
}

bool visitLiveItems(const std::function<void(const xitem&)>& visit) {
    const auto visit_all = [&] {
        for (std::uint32_t i = 0; const xitem* item = xitemAt(i); ++i) {
            if (belongsToLiveTable(*item)) {
                visit(*item);
            }
        }
    };
    initXitemList();
    const bool parsed = buildFrom(paths::kNeutralTree, visit_all);
    if (!parsed) {
        delXitemList();
    }
    if (extTreeFileExist()) {
        initXitemList();
        if (!buildFrom(paths::kExtTree, visit_all)) {
            delXitemList();
        }
    }
    malloc_trim(0);
    return parsed;
}

} // namespace kelconf
