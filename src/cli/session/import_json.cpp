#include "cli/session/import_json.h"

#include "db/sqlite_handle.h"

#include <unordered_set>
#include <utility>

namespace kelconf::cli {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::string textAt(sqlite3_stmt* row, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
    return text == nullptr
               ? ""
               : std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(row, column)));
}

// Empty, and the value with it, when the member may be a setting; else what is wrong.
std::string readValue(sqlite3_stmt* row, std::string& value) {
    const std::string type = textAt(row, 1);
    if (type == "text") {
        value = textAt(row, 2);
    } else if (type == "integer" || type == "real") {
        value = textAt(row, 3); // its digits as they stand
    } else if (type == "true" || type == "false") {
        value = type == "true" ? "1" : "0";
    } else {
        return "is neither a text nor a number nor a truth value";
    }
    return "";
}

} // namespace

bool isJson(std::string_view content) {
    const std::size_t first = content.find_first_not_of(kBlanks);
    return first != std::string_view::npos && content[first] == '{';
}

ParsedExport parseJson(std::string_view content) {
    ParsedExport parsed;
    const OpenedDatabase database = openDatabase(":memory:");
    const Statement members =
        prepare(database.handle.get(), "SELECT key, type, value, ?1 -> fullkey FROM json_each(?1)");
    sqlite3_bind_text64(members.get(), 1, content.data(), content.size(), SQLITE_STATIC,
                        SQLITE_UTF8);
    std::unordered_set<std::string> names;
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(members.get())) == SQLITE_ROW) {
        ExportEntry entry{textAt(members.get(), 0), "", 0};
        std::string fault = readValue(members.get(), entry.value);
        if (entry.name.empty()) {
            fault = "a name is empty";
        } else if (!names.insert(entry.name).second) {
            fault = "stands there twice";
        }
        if (fault.empty()) {
            parsed.entries.push_back(std::move(entry));
        } else {
            parsed.faults.push_back(" " + entry.name + ": " + fault);
        }
    }
    if (step != SQLITE_DONE) {
        parsed.faults.emplace_back(" no JSON that can be read");
    }
    return parsed;
}

} // namespace kelconf::cli
