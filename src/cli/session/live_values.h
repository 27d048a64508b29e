// Live values beside their factory defaults.
#pragma once

#include "catalog/catalog.h"
#include "cli/session/bus_session.h"
#include "cli/session/patterns.h"

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kelconf::cli {

// The live parameters whose names match, in ascending order. kDifferent, said, when a word of the
// patterns matched none; these that matched were visited all the same.
using LiveVisitor = std::function<void(std::string_view name, std::string_view value)>;
int forEachLive(const Bus& bus, Patterns& patterns, const LiveVisitor& visit);

// Every row of default.db by its name. kBroken, said, when it cannot be read; `sound` asks for
// a file that matches its sidecar as well.
using FactoryRows = std::unordered_map<std::string, Parameter>;
int readFactory(FactoryRows& rows, bool sound);

struct Deviation {
    std::string name;
    std::string live;
    std::string factory;
};

// The live parameters that match and differ from their factory default. Names without one and
// states (isState) are passed over. Returns as forEachLive.
int findDeviations(const Bus& bus, Patterns& patterns, const FactoryRows& factory,
                   std::vector<Deviation>& deviations);

} // namespace kelconf::cli
