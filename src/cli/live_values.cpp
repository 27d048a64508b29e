#include "cli/live_values.h"

#include "cli/output.h"
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
    Factory factory;
    const bool read = factory && factory.forEach([&](FactoryRow&& row) {
        std::string name = row.name;
        rows.emplace(std::move(name), std::move(row));
    });
    if (!read) {
        complain("no factory defaults: " + factory.problem() + "; kelconf-init builds the file");
        return kBroken;
    }
    if (sound && !factorySound()) {
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
            row->second.value != value) {
            deviations.push_back({row->first, std::string{value}, row->second.value});
        }
    });
}

} // namespace kelconf::cli
