// The answers that a client hands out.
#pragma once

#include "client/reply_document.h"
#include "kelbus.h"

#include <memory>

namespace kelconf {

// What stands behind a kelbus_values, whose items point into both members.
struct ValueList : kelbus_values {
    std::vector<kelbus_parameter> parameters;
    std::string texts;
};

// Takes the texts over. Throws std::bad_alloc.
std::unique_ptr<ValueList> makeValueList(ReplyDocument&& document);

// Drops the parameters whose names do not begin so.
void keepPrefix(ValueList& list, std::string_view prefix);

} // namespace kelconf
