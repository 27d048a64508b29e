// Settings as a JSON object of names and values, as export --json prints them (RFC 8259).
//
// Read by the few lines below: SQLite, which kelctl has for default.db, takes objects for names and
// then falls over them (3.40), and a library for JSON alone would make kelctl a third larger. A
// text is taken as it is, a number by its digits, true and false as 1 and 0.
#pragma once

#include "cli/output/export_format.h"

#include <string_view>

namespace kelconf::cli {

// True when the content can only be JSON: it begins with "{", and no name does.
bool isJson(std::string_view content);

// The lines of the entries are 0. Faults are in words alone.
ParsedExport parseJson(std::string_view content);

} // namespace kelconf::cli
