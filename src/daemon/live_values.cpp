#include "daemon/live_values.h"

#include "daemon/live_files.h"
#include "db/live_db.h"
#include "files/backup.h"
#include "files/storage_fault.h"
#include "log/keldebug.h"
#include "service/param_list.h"
#include "service/password_state.h"
#include "service/unstored.h"
#include "text/text.h"
#include "tree/conf_builders.h"

#include <map>
#include <string>

namespace kelconf {

namespace {

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

void appendDefault(const std::string& name, const Default& parameter) {
    ParamElement element;
    initParamElement(&element);
    OwnedText name_text{newText(name)};
    OwnedText value_text{newText(parameter.value)};
    element.name = name_text.get();
    element.value = value_text.get();
    element.persistent = parameter.realtime ? 0 : 1;
    if (name_text && value_text && addParamElement(&element) == 1) {
        static_cast<void>(name_text.release());
        static_cast<void>(value_text.release());
    }
}

// Parameters that stand in no file yet.
void takeMissingDefaults() {
    const std::map<std::string, Default> missing = missingDefaults();
    if (missing.empty()) {
        return;
    }
    for (const auto& [name, parameter] : missing) {
        appendDefault(name, parameter);
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
        loadDatabaseFile(source.path);
        stored = readStoredPasswords(source.path);
        source.hold.reset();
    }
    // Outside of backup_mutex: the conversion takes the parameter lock, which comes before it.
    if (source.origin == LiveOrigin::kLiveFile && !storageFaultNoted()) {
        settlePasswords(stored);
    } else {
        adoptPasswords(stored, source.origin != LiveOrigin::kLocked);
    }
    if (source.temporary) {
        dropReplacement();
    }
}

} // namespace

void loadLiveValues(LiveSource source) {
    initParamList();
    if (source.origin != LiveOrigin::kTrees) {
        loadFrom(source);
    }
    if (storageFaultNoted() || liveFile() == LiveFile::kLost) {
        takeMissingDefaults();
    }
    if (source.origin == LiveOrigin::kTrees) {
        adoptPlainPasswords();
    }
    keldebug(kLogInfo, kToBoth, "%d live parameters loaded\n", CheckParamListLength());
}

} // namespace kelconf
