// Values to be set: the checks before anything is sent, and the sending in batches.
#pragma once

#include "catalog/catalog.h"
#include "cli/options.h"
#include "cli/session/bus_session.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::cli {

struct Change {
    std::string name;
    std::string value;
    std::string where;  // in front of a complaint: "FILE:LINE: ", or empty
    std::string before; // the live value, once it was read
};

// Why the bus cannot carry a text (control characters, no UTF-8, too long), or an empty text.
std::string notCarried(std::string_view text);

// True when the bus can carry every name and value. Says each that it cannot.
bool allCarried(const std::vector<Change>& changes);

// True when every value may be set: within its parameter's range, step and options as default.db
// has them, and no password that its stored form would cut. Says each that may not. With `force`
// only the cut is said, as a warning. Without a default.db nothing but the cut is checked, said
// once.
bool allAllowed(const std::vector<Change>& changes, bool force);

// Sets the values in one request. Says nothing.
kelbus_error sendChanges(const Bus& bus, std::span<const Change> changes, kelbus_kind kind);

// Sets the values, in order, in requests of at most 200 values or 1 MiB. Shows progress on
// a terminal. On a failure or Ctrl-C it says exactly how far it came; `doing` is the word for it
// ("import"). Signals wait until the request under way is answered or timed out.
int applyChanges(const Bus& bus, const std::vector<Change>& changes, kelbus_kind kind,
                 const char* doing);

kelbus_kind kindOf(const Options& options);

} // namespace kelconf::cli
