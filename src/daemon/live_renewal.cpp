#include "daemon/live_renewal.h"

#include "bus/service_locks.h"
#include "daemon/live_check.h"
#include "daemon/live_files.h"
#include "db/live_rows.h"
#include "files/backup.h"
#include "files/live_seal.h"
#include "files/md5_sidecar.h"
#include "log/keldebug.h"
#include "paths.h"
#include "service/param_list.h"
#include "service/password_state.h"
#include "service/passwords.h"
#include "service/unstored.h"
#include "text/text.h"
#include "tree/conf_builders.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kelconf {

namespace {

constexpr std::uint64_t kRowOverhead = 64;     // bytes of a row and its index entry, amply
constexpr std::uint64_t kFileOverhead = 65536; // journal, first pages

using TypeWords = std::map<std::string, std::string, std::less<>>;

bool faultyFile() {
    const BackupSection lock;
    return readInFull(paths::kLiveDb) == Reading::kFaulty;
}

bool renewalDue() {
    return liveFile() != LiveFile::kWhole || !filePresent(paths::kLiveDb) ||
           (anyUnstored() && faultyFile());
}

// Ample: names stand in the table and in its index, scrambled values are a third longer.
std::uint64_t sizeOfNewFile() {
    const CriticalSection lock;
    std::uint64_t bytes = kFileOverhead;
    for (std::uint32_t i = 0; const ParamElement* param = paramElementAt(i); ++i) {
        bytes += 2 * (strlens(param->name) + strlens(param->value)) + kRowOverhead;
    }
    return bytes;
}

TypeWords readTypeWords() {
    TypeWords words;
    const auto take = [&](std::string_view name, std::string_view type) {
        words.try_emplace(std::string{name}, type);
    };
    {
        const BackupSection lock;
        for (const char* path : {paths::kLiveDb, paths::kBackupDb}) {
            if (filePresent(path)) {
                visitTypes(path, take);
            }
        }
    }
    visitLiveItems([&](const xitem& item) { take(item.name, item.type); });
    return words;
}

std::string typeOf(const ParamElement& param, const TypeWords& words) {
    if (param.persistent == 0) {
        return "realtime";
    }
    const auto found = words.find(param.name);
    return found == words.end() ? "" : found->second;
}

// What was to be stored and could not be counts before what is live.
std::string storedValueOf(const ParamElement& param) {
    if (param.persistent == 0) {
        return {};
    }
    const auto& unstored = unstoredChanges();
    const auto found = unstored.find(param.name);
    const char* value = found == unstored.end() ? param.value : found->second.c_str();
    const bool scramble = support_campass != 0 && isPasswordName(param.name);
    return scramble ? scrambledForm(value) : std::string{viewOf(value)};
}

std::vector<NewRow> rowsOfMemory(const TypeWords& words) {
    std::vector<NewRow> rows;
    for (std::uint32_t i = 0; const ParamElement* param = paramElementAt(i); ++i) {
        rows.push_back({param->name, storedValueOf(*param), typeOf(*param, words)});
    }
    return rows;
}

// The sidecar is written first: a kill in between then leaves a file that it does not match, as it
// was before, or one that it vouches for.
bool putNewFile(const std::vector<NewRow>& rows) {
    dropReplacement();
    if (!makeDatabase(kLiveReplacement, rows, support_campass != 0 ? scrambledMark : plainMark)) {
        dropReplacement();
        return false;
    }
    if (liveFile() != LiveFile::kIncomplete) {
        keepEvidence();
    }
    createFileMD5(kLiveReplacement, paths::kLiveDbMd5);
    return putReplacementInPlace();
}

} // namespace

void renewLiveFile() {
    if (!renewalDue() || CheckParamListLength() == 0 || !roomFor(sizeOfNewFile())) {
        return;
    }
    const TypeWords words = readTypeWords();
    const CriticalSection lock;
    const BackupSection files;
    if (putNewFile(rowsOfMemory(words))) {
        sealLiveDatabase();
        protectStoredFiles();
        forgetUnstored();
        setLiveFile(LiveFile::kWhole);
        backup_pending = 1;
        keldebug(kLogWarning, kToBoth, "live database made anew from memory\n");
    }
}

} // namespace kelconf
