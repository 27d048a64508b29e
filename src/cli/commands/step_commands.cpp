// toggle and add: a new value that is made of the present one.

#include "catalog/catalog.h"
#include "catalog/decimal.h"
#include "catalog/value_rules.h"
#include "cli/commands/commands.h"
#include "cli/output/output.h"
#include "cli/session/bus_session.h"
#include "text/text.h"

#include <array>
#include <optional>

namespace kelconf::cli {

namespace {

constexpr std::array kPairs = {std::pair{"0", "1"}, std::pair{"false", "true"},
                               std::pair{"no", "yes"}, std::pair{"off", "on"}};

std::optional<std::string> otherOf(const std::string& name, const std::string& value) {
    for (const auto& [a, b] : kPairs) {
        if (value == a || value == b) {
            return value == a ? b : a;
        }
    }
    Catalog catalog;
    const auto parameter = catalog ? catalog.find(name) : std::nullopt;
    const auto words =
        parameter ? optionWords(parameter->options) : std::vector<std::string_view>{};
    if (words.size() != 2 || (value != words[0] && value != words[1])) {
        return {};
    }
    return std::string{value == words[0] ? words[1] : words[0]};
}

// The present value, and the new one set in place of it. `make` gives it, or nothing and has said
// why.
template <typename Make>
int setMade(const Options& options, Make make) {
    const std::string& name = options.operands.front();
    Values live;
    {
        Bus bus;
        int status = openBus(options, bus);
        status = status != kDone ? status : fetchNamed(bus, {name}, live);
        if (status != kDone) {
            return status;
        }
    }
    if (live->items[0].value == nullptr) {
        complain("unknown name " + name);
        return kDifferent;
    }
    const std::optional<std::string> value = make(std::string{live->items[0].value});
    if (!value) {
        complain("nothing was set");
        return kUsage;
    }
    Options set = options;
    set.operands = {name + "=" + *value};
    return runSet(set);
}

} // namespace

int runToggle(const Options& options) {
    const std::string& name = options.operands.front();
    return setMade(options, [&](const std::string& value) {
        std::optional<std::string> other = otherOf(name, value);
        if (!other) {
            complain(name + " is none of two values");
        }
        return other;
    });
}

int runAdd(const Options& options) {
    const std::string& name = options.operands.front();
    const auto step = decimalOf(options.operands.back());
    if (!step) {
        complain("\"" + options.operands.back() + "\" is no number");
        return kUsage;
    }
    return setMade(options, [&](const std::string& value) -> std::optional<std::string> {
        const auto number = decimalOf(value);
        if (!number) {
            complain("the value of " + name + " is no number");
            return {};
        }
        return textOf(*number + *step);
    });
}

} // namespace kelconf::cli
