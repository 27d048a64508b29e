#include "cli/session/live_values.h"

#include "cli/output/output.h"
#include "paths.h"
#include "text/text.h"

namespace kelconf::cli {

int forEachLive(const Bus& bus, std::string_view prefix, const LiveVisitor& visit) {
    Values values;
    const int status = fetchListing(bus, prefix, values);
    for (std::size_t i = 0; status == kDone && i < values->count; ++i) {
        const kelbus_parameter& item = values->items[i];
        if (startsWith(item.name, prefix)) {
            visit(item.name, viewOf(item.value));
        }
    }
    return status;
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

int findDeviations(const Bus& bus, std::string_view prefix, const FactoryRows& factory,
                   std::vector<Deviation>& deviations) {
    return forEachLive(bus, prefix, [&](std::string_view name, std::string_view value) {
        const auto row = factory.find(std::string{name});
        if (row != factory.end() && !isState(name, row->second.type) &&
            row->second.default_value != value) {
            deviations.push_back({row->first, std::string{value}, row->second.default_value});
        }
    });
}

} // namespace kelconf::cli
