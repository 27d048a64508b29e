#include "live/load.h"

#include "builders/conf_builders.h"
#include "db/live_statements.h"
#include "db/update_retries.h"
#include "files/backup.h"
#include "files/storage_fault.h"
#include "live/judge.h"
#include "live/owed.h"
#include "live/password_state.h"
#include "live/rows.h"
#include "log/keldebug.h"
#include "paths.h"
#include "service/param_list.h"
#include "text/text.h"

#include <map>
#include <string>

namespace kelconf {

namespace {

constexpr int kReadings = 3; // of a file whose reading fails

struct Default {
    std::string value;
    bool realtime;
};

std::map<std::string, Default> missingDefaults() {
    std::map<std::string, Default> missing;
    visitLiveItems([&](const xitem& item) {
        if (seekParamElement(item.name) == nullptr) {
            missing.try_emplace(item.name, Default{item.value, viewOf(item.type) == "realtime"});
        }
    });
    return missing;
}

void appendParameter(std::string_view name, std::string_view value, bool realtime) {
    ParamElement element;
    initParamElement(&element);
    OwnedText name_text{newText(name)};
    OwnedText value_text{newText(value)};
    element.name = name_text.get();
    element.value = value_text.get();
    element.persistent = realtime ? 0 : 1;
    if (name_text && value_text && addParamElement(&element) == 1) {
        static_cast<void>(name_text.release());
        static_cast<void>(value_text.release());
    }
}

void appendRow(sqlite3_stmt* row) {
    const int columns = sqlite3_column_count(row);
    if (columns >= 2 && sqlite3_column_type(row, 0) != SQLITE_NULL) {
        appendParameter(textOf(row, 0), textOf(row, 1),
                        columns > 2 && textOf(row, 2) == "realtime");
    }
}

bool loadRows(sqlite3* database) {
    const Statement select = prepare(database, "SELECT * from CONFIG");
    int status = SQLITE_ERROR;
    while (select && (status = sqlite3_step(select.get())) == SQLITE_ROW) {
        appendRow(select.get());
    }
    return status == SQLITE_DONE;
}

// False when rows may be missing.
bool loadDatabaseFile(const char* path) {
    bool whole = false;
    {
        const OpenedDatabase database = openLogged(path);
        if (!database.opened) {
            return false;
        }
        whole = loadRows(database.handle.get());
        if (!whole) {
            keldebug(kLogInfo, kToBoth, "SQL error: %s\n", database.message());
        }
    }
    sortParamList();
    return whole;
}

void dropParameters() {
    for (std::uint32_t i = 0; const ParamElement* element = paramElementAt(i); ++i) {
        freeText(element->name);
        freeText(element->value);
    }
    simlist_clear(&ParamList);
}

// All rows or none: some would be taken for all, and the file be made anew of them.
bool loadRowsWhole(const char* path) {
    for (int reading = 1; !loadDatabaseFile(path); ++reading) {
        dropParameters();
        if (reading == kReadings || !pauseBeforeRetry()) {
            return false;
        }
    }
    return true;
}

bool loadWhole(const char* path, StoredPasswords& stored) {
    if (!loadRowsWhole(path)) {
        return false;
    }
    stored = readStoredPasswords(path);
    if (!stored.whole) {
        dropParameters();
    }
    return stored.whole;
}

// The file that the source names was judged, but cannot be read any more. It is left alone, as its
// values may be newer than those of its backup.
void loadBackupInstead(LiveSource& source, StoredPasswords& stored) {
    keldebug(kLogWarning, kToBoth, "live database cannot be read, serving the backup\n");
    setLiveFile(LiveFile::kUnread);
    source.origin = LiveOrigin::kLiveCopy;
    source.path = paths::kBackupDb;
    if (backupSound()) {
        loadWhole(source.path, stored);
    }
}

// Parameters that stand in no file yet.
void takeMissingDefaults() {
    const std::map<std::string, Default> missing = missingDefaults();
    if (missing.empty()) {
        return;
    }
    for (const auto& [name, parameter] : missing) {
        appendParameter(name, parameter.value, parameter.realtime);
    }
    sortParamList();
    if (liveFile() == LiveFile::kWhole) {
        setLiveFile(LiveFile::kIncomplete);
    }
    keldebug(kLogWarning, kToBoth, "%d parameters have their defaults in memory only\n",
             static_cast<int>(missing.size()));
}

void loadFrom(LiveSource& source) {
    StoredPasswords stored;
    {
        const BackupSection lock;
        if (!loadWhole(source.path, stored) && source.origin == LiveOrigin::kLiveFile) {
            loadBackupInstead(source, stored);
        }
        source.hold.reset();
    }
    // Outside of backup_mutex: the conversion takes the parameter lock, which comes before it.
    if (source.origin == LiveOrigin::kLiveFile && !storageFaultNoted()) {
        settlePasswords(stored);
    } else {
        adoptPasswords(stored, source.origin != LiveOrigin::kLiveCopy);
    }
    dropLiveCopy();
}

} // namespace

void loadLiveValues(LiveSource source) {
    initParamList();
    if (source.origin != LiveOrigin::kTrees) {
        loadFrom(source);
    }
    if (storageFaultNoted() || source.origin != LiveOrigin::kLiveFile) {
        takeMissingDefaults();
    }
    if (source.origin == LiveOrigin::kTrees) {
        adoptPlainPasswords();
    }
    keldebug(kLogInfo, kToBoth, "%d live parameters loaded\n", CheckParamListLength());
}

void loadSQLDB() {
    loadDatabaseFile(paths::kLiveDb);
}

} // namespace kelconf
