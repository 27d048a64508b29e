// Whether a value is within its parameter's range, step and options (docs/tree-format.md).
#pragma once

#include <string>
#include <string_view>

namespace kelconf::cli {

// The attributes as default.db has them; empty ones ask for nothing.
struct ValueRule {
    std::string_view type;
    std::string_view range;
    std::string_view step;
    std::string_view options;
};

// Empty when the value may be set; otherwise the rule that it breaks, in words. What an attribute
// says in a form that is not understood is not enforced.
std::string brokenRule(const ValueRule& rule, std::string_view value);

} // namespace kelconf::cli
