// What the web may know of: the parameters to which the tree gives http_access "r" or "rw".
#pragma once

#include "catalog/parameter.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::web {

struct Definition {
    Parameter parameter;
    bool writable = false;
    bool secret = false;
    bool state = false;
    std::string json; // the beginning of its object: all but what depends on the value
};

// By name. Never changed once made: who holds it may go on with it.
using Definitions = std::vector<Definition>;

// Null when default.db cannot be read.
std::shared_ptr<const Definitions> readDefinitions();

// The place of a name; definitions.size() when it is not for the web.
std::size_t placeOf(const Definitions& definitions, std::string_view name);

// The object of a parameter with this value.
void appendJson(std::string& text, const Definition& definition, std::string_view value);

// Why the value cannot be set, in words that go on after the name; empty when it can.
std::string refusal(const Definition& definition, std::string_view value);

} // namespace kelconf::web
