// The text form of export and import (docs/kelctl.md): a header, then one NAME=VALUE a line.
//
// What would break a line, act on a terminal or get lost at its ends is written as an escape:
// \n \r \t \\ and \xHH for a byte. The rest stands as it is, in UTF-8. Lines whose first character
// is "#", and empty lines, count for nothing.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::cli {

inline constexpr std::string_view kExportHeader = "# kelctl export, format 1\n";

// One line with its line feed.
std::string exportLine(std::string_view name, std::string_view value);
// A comment about a parameter.
std::string exportNote(std::string_view name, std::string_view note);

struct ExportEntry {
    std::string name;
    std::string value;
    std::size_t line; // from 1
};

struct ParsedExport {
    std::vector<ExportEntry> entries;
    std::vector<std::string>
        faults; // "LINE: what is wrong"; with any, the entries are not complete
};

// Blanks and tabs around names and values, and a CR at the end of a line, do not count.
ParsedExport parseExport(std::string_view content);

} // namespace kelconf::cli
