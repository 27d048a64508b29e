#include "service/password_state.h"

#include "db/live_db.h"
#include "paths.h"
#include "service/param_list.h"
#include "service/passwords.h"
#include "text/text.h"

#include <algorithm>
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

std::int32_t encodeMark(std::int64_t rows, std::uint32_t bits) {
    const auto count = static_cast<std::uint32_t>(std::clamp<std::int64_t>(rows, 0, kMostRows));
    return static_cast<std::int32_t>((count << kRowsShift) | bits);
}

PasswordMark currentMark() {
    return passwordMarkOf(readUserVersion(paths::kLiveDb));
}

void setLiveSwitch(const char* value) {
    if (ParamElement* flag = seekParamElement(kPasswordSwitch)) {
        replaceText(flag->value, value);
    }
}

// Scrambles the live and the stored values of passwords that were added after the mark, so that
// all of them are alike; the switch row then says so too.
void settleScrambled(const PasswordMark& mark) {
    std::vector<LiveRow> rows;
    for (const std::string& name : liveNamesFrom(mark.rows)) {
        ParamElement* element = seekParamElement(name.c_str());
        if (element != nullptr && isPasswordName(element->name) && strlens(element->value) > 0) {
            rows.push_back({name, scrambledForm(element->value)});
            replaceText(element->value, rows.back().value);
        }
    }
    const ParamElement* flag = seekParamElement(kPasswordSwitch);
    if (flag != nullptr && viewOf(flag->value) != "1") {
        rows.push_back({kPasswordSwitch, "1"});
    }
    setLiveSwitch("1");
    if (!rows.empty() || mark.rows != CheckParamListLength()) {
        storeTogether(rows, scrambledMark, kAttempts);
    }
}

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
    if (currentMark().present) {
        return;
    }
    const auto value = fresh ? std::nullopt : readLiveValue(kPasswordSwitch);
    const bool scrambled = value.has_value() && *value != "0";
    storeTogether({}, scrambled ? scrambledMark : plainMark, kAttempts);
}

void settlePasswords() {
    const PasswordMark mark = currentMark();
    if (mark.present && mark.scrambled) {
        settleScrambled(mark);
    } else if (mark.present) {
        setLiveSwitch("0");
    }
    restorPlainPassword();
    encryptAllPasswordInDB();
    const PasswordMark now = currentMark();
    const bool scrambled = now.present ? now.scrambled : checkPasswordEncryption() == 1;
    support_campass = scrambled ? 1 : 0;
}

} // namespace kelconf
