#include "live/password_state.h"

#include "bus/service_locks.h"
#include "db/update_retries.h"
#include "files/backup.h"
#include "live/owed.h"
#include "live/rows.h"
#include "live/seal.h"
#include "paths.h"
#include "service/param_list.h"
#include "service/passwords.h"
#include "service/published_values.h"
#include "text/text.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <string>
#include <vector>

namespace kelconf {

namespace {

constexpr std::uint32_t kScrambledBit = 1;
constexpr std::uint32_t kMarkBit = 2;
constexpr unsigned kRowsShift = 2;
constexpr std::int64_t kMostRows = std::numeric_limits<std::int32_t>::max() >> kRowsShift;
constexpr int kAttempts = 3;
constexpr int kConversionAttempts = 10;

std::int32_t encodeMark(std::int64_t rows, std::uint32_t bits) {
    const auto count = static_cast<std::uint32_t>(std::clamp<std::int64_t>(rows, 0, kMostRows));
    return static_cast<std::int32_t>((count << kRowsShift) | bits);
}

void setLiveSwitch(const char* value) {
    if (ParamElement* flag = seekParamElement(kPasswordSwitch)) {
        replaceText(flag->value, value);
        publishChanges({&flag, 1});
    }
}

// Scrambles the live values of passwords that were added after the mark, so that all of them are
// as the mark says. The rows that are to follow.
std::vector<LiveRow> scrambleAddedValues(const std::vector<std::string>& added) {
    std::vector<LiveRow> rows;
    for (const std::string& name : added) {
        ParamElement* element = seekParamElement(name.c_str());
        if (element != nullptr && isPasswordName(element->name) && strlens(element->value) > 0) {
            rows.push_back({name, scrambledForm(element->value), {}});
            replaceText(element->value, rows.back().value);
        }
    }
    return rows;
}

// Every password as the file is to hold it, and the switch. The parameter lock is held.
std::vector<LiveRow> scrambledRows() {
    std::vector<LiveRow> rows{{kPasswordSwitch, "1", {}}};
    for (std::uint32_t i = 0; const ParamElement* param = paramElementAt(i); ++i) {
        if (isPasswordName(param->name)) {
            const std::string plain{valueToStore(param->name, param->value)};
            rows.push_back({param->name, scrambledForm(plain.c_str()), {}});
        }
    }
    return rows;
}

// Between two transactions the file is sealed and on disk.
bool storeAndSettle(const std::vector<LiveRow>& rows, VersionOf version_of, int attempts) {
    return storeTogether(rows, version_of, attempts) && settleLiveDatabase();
}

// Brings the rows and the switch in line with a mark that says scrambled.
void settleScrambled(const StoredPasswords& stored) {
    std::vector<LiveRow> rows = scrambleAddedValues(stored.added);
    const ParamElement* flag = seekParamElement(kPasswordSwitch);
    if (flag != nullptr && viewOf(flag->value) != "1") {
        rows.push_back({kPasswordSwitch, "1", {}});
    }
    setLiveSwitch("1");
    if (!rows.empty() || stored.mark.rows != CheckParamListLength()) {
        const BackupSection files;
        storeAndSettle(rows, scrambledMark, kAttempts);
    }
}

bool isSettled(const StoredPasswords& stored) {
    if (!stored.mark.present) {
        return false;
    }
    const bool wanted = stored.mark.scrambled || validatePrivateCampass() == 1;
    return !wanted || (stored.mark.scrambled && stored.added.empty());
}

// The start could not write what it had to. Set by the start, cleared by one other thread.
std::atomic<bool> unsettled{false};

} // namespace

PasswordMark passwordMarkOf(std::int64_t user_version) {
    const auto bits = static_cast<std::uint32_t>(user_version);
    if (user_version <= 0 || (bits & kMarkBit) == 0) {
        return {false, false, 0};
    }
    return {true, (bits & kScrambledBit) != 0, user_version >> kRowsShift};
}

std::int32_t scrambledMark(std::int64_t rows) {
    return encodeMark(rows, kMarkBit | kScrambledBit);
}

std::int32_t plainMark(std::int64_t rows) {
    return encodeMark(rows, kMarkBit);
}

void markPasswordState(bool fresh) {
    bool scrambled = false;
    { // a locked file has no mark that could be read, which is not to have none
        const Database hold = holdForReading(paths::kLiveDb);
        const std::int64_t version = readUserVersion(paths::kLiveDb);
        if (!hold || version == kUnreadNumber || passwordMarkOf(version).present) {
            return;
        }
        const auto value = fresh ? std::nullopt : readLiveValue(kPasswordSwitch);
        scrambled = value.has_value() && *value != "0";
    }
    storeAndSettle({}, scrambled ? scrambledMark : plainMark, kAttempts);
}

namespace {

StoredPasswords readStoredPasswordsOnce(const char* path) {
    const std::int64_t version = readUserVersion(path);
    StoredPasswords stored{passwordMarkOf(version), {}, version != kUnreadNumber};
    const PasswordMark& mark = stored.mark;
    if (mark.present) {
        stored.whole = visitRows(
            path,
            [&](std::string_view name, std::string_view /*value*/, std::string_view /*type*/) {
                stored.added.emplace_back(name);
            },
            mark.rows);
    }
    return stored;
}

} // namespace

// Taken for a file without a mark, one that cannot be read would have its passwords spoilt.
StoredPasswords readStoredPasswords(const char* path) {
    StoredPasswords stored = readStoredPasswordsOnce(path);
    for (int more = kAttempts - 1; !stored.whole && more > 0 && pauseBeforeRetry(); --more) {
        stored = readStoredPasswordsOnce(path);
    }
    return stored;
}

void settlePasswords(const StoredPasswords& stored) {
    const PasswordMark& mark = stored.mark;
    if (mark.present && mark.scrambled) {
        settleScrambled(stored);
    } else if (mark.present) {
        setLiveSwitch("0");
    }
    restorPlainPassword();
    const bool was_scrambled = checkPasswordEncryption() == 1;
    encryptAllPasswordInDB();
    const StoredPasswords now = readStoredPasswords(paths::kLiveDb);
    support_campass = (now.mark.present ? now.mark.scrambled : was_scrambled) ? 1 : 0;
    unsettled = !isSettled(now);
}

void adoptPasswords(const StoredPasswords& stored, bool later) {
    const PasswordMark& mark = stored.mark;
    if (mark.present) {
        setLiveSwitch(mark.scrambled ? "1" : "0");
    }
    if (mark.present && mark.scrambled) {
        scrambleAddedValues(stored.added);
    }
    restorPlainPassword();
    const bool scrambled = mark.present ? mark.scrambled : checkPasswordEncryption() == 1;
    support_campass = scrambled ? 1 : 0;
    unsettled = later && !isSettled(stored);
}

void adoptPlainPasswords() {
    setLiveSwitch("1");
    support_campass = validatePrivateCampass() == 1 ? 1 : 0;
    unsettled = false;
}

bool storeConvertedPasswords() {
    const CriticalSection lock;
    const BackupSection files;
    storeTogether(scrambledRows(), scrambledMark, kConversionAttempts);
    return sealLiveDatabase();
}

bool passwordsSettled() {
    return !unsettled;
}

void resettlePasswords() {
    if (!unsettled) {
        return;
    }
    const bool scramble = validatePrivateCampass() == 1;
    const std::vector<LiveRow> rows = scramble ? scrambledRows() : std::vector<LiveRow>{};
    if (storeAndSettle(rows, scramble ? scrambledMark : plainMark, 1)) {
        setLiveSwitch("1");
        support_campass = scramble ? 1 : 0;
        unsettled = false;
        backup_pending = 1;
    }
}

} // namespace kelconf
