// Files that people import: whatever was read without a fault is read the same again once it is
// written, and JSON gives no entry that has no name.
#include "cli/output/export_format.h"
#include "cli/session/import_json.h"
#include "require.h"

using namespace kelconf::cli;
using namespace kelconf::fuzz;

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
