// Files that people import: whatever was read without a fault is read the same again once it is
// written, and what is taken for JSON is JSON.
#include "cli/output/export_format.h"
#include "cli/session/import_json.h"
#include "db/sqlite_handle.h"
#include "require.h"

using namespace kelconf::cli;
using namespace kelconf::fuzz;

namespace {

// SQLite reads JSON as well, less strictly.
bool sqliteTakes(std::string_view content) {
    static const kelconf::OpenedDatabase database = kelconf::openDatabase(":memory:");
    const kelconf::Statement valid =
        kelconf::prepare(database.handle.get(), "SELECT json_valid(?1)");
    sqlite3_bind_text64(valid.get(), 1, content.data(), content.size(), SQLITE_STATIC, SQLITE_UTF8);
    return sqlite3_step(valid.get()) == SQLITE_ROW && sqlite3_column_int(valid.get(), 0) == 1;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view content = textOf(data, size);
    const ParsedExport read = isJson(content) ? parseJson(content) : parseExport(content);
    if (!read.faults.empty()) {
        return 0;
    }
    std::string written(kExportHeader);
    for (const ExportEntry& entry : read.entries) {
        require(!entry.name.empty());
        written += exportLine(entry.name, entry.value);
    }
    if (isJson(content)) {
        require(sqliteTakes(content));
        return 0; // its names are any text; the service refuses those that are none
    }
    const ParsedExport again = parseExport(written);
    require(again.faults.empty() && again.entries.size() == read.entries.size());
    for (std::size_t i = 0; i < read.entries.size(); ++i) {
        require(again.entries[i].name == read.entries[i].name);
        require(again.entries[i].value == read.entries[i].value);
    }
    return 0;
}
