#include "cli/session/live_values.h"

#include "cli/output/output.h"
#include "paths.h"
#include "text/text.h"

namespace kelconf::cli {

int forEachLive(const Bus& bus, Patterns& patterns, const LiveVisitor& visit) {
    Values values;
    if (int status = fetchListing(bus, patterns.common(), values); status != kDone) {
        return status;
    }
    for (std::size_t i = 0; i < values->count; ++i) {
        const kelbus_parameter& item = values->items[i];
        if (patterns.match(item.name)) {
            visit(item.name, viewOf(item.value));
        }
    }
    return patterns.saidUnmatched() ? kDifferent : kDone;
}

int readFactory(FactoryRows& rows, bool sound) {
    Catalog catalog;
    const bool read = catalog && catalog.forEach([&](Parameter&& parameter) {
        std::string name = parameter.name;
        rows.emplace(std::move(name), std::move(parameter));
    });
    if (!read) {
        complain("no factory defaults: " + catalog.problem() + "; kelconf-init builds the file");
        return kBroken;
    }
    if (sound && !catalogSound()) {
        complain(std::string{paths::kDefaultDb} +
                 " does not match its sidecar; kelconf-init builds it anew");
        return kBroken;
    }
    return kDone;
}

int findDeviations(const Bus& bus, Patterns& patterns, const FactoryRows& factory,
                   std::vector<Deviation>& deviations) {
    return forEachLive(bus, patterns, [&](std::string_view name, std::string_view value) {
        const auto row = factory.find(std::string{name});
        if (row != factory.end() && !isState(name, row->second.type) &&
            row->second.default_value != value) {
            deviations.push_back({row->first, std::string{value}, row->second.default_value});
        }
    });
}

} // namespace kelconf::cli
