// Whether a value is within its parameter's range, step and options.
//
// The store carries these texts and enforces nothing; the forms understood here are written down
// in docs/tree-format.md. What is in no known form is not enforced. Numbers are compared as exact
// decimals (catalog/decimal.h). Pure functions, any thread.
#pragma once

#include "catalog/parameter.h"

#include <string>
#include <string_view>
#include <vector>

namespace kelconf {

// The attributes as default.db has them; empty ones ask for nothing.
struct ValueRule {
    std::string_view type;
    std::string_view range;
    std::string_view step;
    std::string_view options;
};

// The texts stay the parameter's.
inline ValueRule ruleOf(const Parameter& parameter) {
    return {parameter.type, parameter.range, parameter.step, parameter.options};
}

// Empty when the value may be set; otherwise the rule that it breaks, in words that go on after
// the parameter's name: "must be 0 to 100".
std::string brokenRule(const ValueRule& rule, std::string_view value);

// The parts of a rule that are enforced, for those who offer a choice.
struct RuleInWords {
    std::string min; // this and the next two: numbers without needless zeros, or empty
    std::string max;
    std::string step;
    std::vector<std::string_view> options; // of the rule's text; empty where the list is none
    std::string words;                     // "1 to 65535, in steps of 2"; empty: everything goes
};
RuleInWords inWords(const ValueRule& rule);

// What of the rule is in no known form and therefore not enforced, in words; empty when nothing.
std::string unknownForm(const ValueRule& rule);

// The words of `options`, without the blanks around them. A "|" anywhere makes it the separator,
// otherwise it is the comma. No word for an empty text.
std::vector<std::string_view> optionWords(std::string_view options);

} // namespace kelconf
