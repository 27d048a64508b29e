#include "live/content.h"

#include "builders/conf_builders.h"
#include "live/files.h"
#include "live/owed.h"
#include "paths.h"
#include "service/passwords.h"
#include "text/text.h"

#include <cstdint>
#include <map>
#include <utility>

namespace kelconf {

namespace {

constexpr std::string_view kRealtime = "realtime";

using TypeWords = std::map<std::string, std::string, std::less<>>;

TypeWords readTypeWords() {
    TypeWords words;
    const auto take = [&](std::string_view name, std::string_view type) {
        words.try_emplace(std::string{name}, type);
    };
    for (const char* path : {paths::kLiveDb, paths::kBackupDb}) {
        if (filePresent(path)) {
            visitRows(path, [&](std::string_view name, std::string_view /*value*/,
                                std::string_view type) { take(name, type); });
        }
    }
    visitLiveItems([&](const xitem& item) { take(item.name, item.type); });
    return words;
}

std::string typeOf(const ParamElement& param, const TypeWords& words) {
    if (param.persistent == 0) {
        return std::string{kRealtime};
    }
    const auto found = words.find(param.name);
    return found == words.end() || found->second == kRealtime ? "" : found->second;
}

std::string storedValueOf(const ParamElement& param) {
    return param.persistent == 0 ? std::string{}
                                 : storedForm(param.name, valueToStore(param.name, param.value));
}

bool rowIsOfMemory(const std::string& name, std::string_view value, std::string_view type) {
    const ParamElement* param = seekParamElement(name.c_str());
    if (param == nullptr || (param->persistent == 0) != (type == kRealtime)) {
        return false;
    }
    return param->persistent == 0 || value == storedValueOf(*param);
}

} // namespace

std::string storedForm(const char* name, std::string_view plain) {
    const bool scramble = support_campass != 0 && isPasswordName(name);
    return scramble ? scrambledForm(std::string{plain}.c_str()) : std::string{plain};
}

std::vector<LiveRow> rowsOfMemory() {
    const TypeWords words = readTypeWords();
    std::vector<LiveRow> rows;
    for (std::uint32_t i = 0; const ParamElement* param = paramElementAt(i); ++i) {
        rows.push_back({param->name, storedValueOf(*param), typeOf(*param, words)});
    }
    return rows;
}

bool holdsMemory(const char* path, bool all) {
    std::int32_t rows = 0;
    bool same = true;
    const bool complete =
        visitRows(path, [&](std::string_view name, std::string_view value, std::string_view type) {
            ++rows;
            same = same && rowIsOfMemory(std::string{name}, value, type);
        });
    return complete && same && (!all || rows == CheckParamListLength());
}

bool liveFileHoldsMemory() {
    return holdsMemory(paths::kLiveDb, liveFile() != LiveFile::kIncomplete);
}

} // namespace kelconf
