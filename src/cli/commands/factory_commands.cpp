// diff and reset.

#include "catalog/secrets.h"
#include "cli/commands/commands.h"
#include "cli/output/listing.h"
#include "cli/output/output.h"
#include "cli/session/changes.h"
#include "cli/session/live_values.h"
#include "cli/session/transfer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace kelconf::cli {

namespace {

std::vector<Difference> differencesOf(const std::vector<Deviation>& deviations,
                                      const Secrets& secrets, bool to_factory) {
    std::vector<Difference> differences;
    for (const Deviation& each : deviations) {
        const std::string_view live = secrets.shown(each.name, each.live);
        const std::string_view factory = secrets.shown(each.name, each.factory);
        differences.push_back(to_factory ? Difference{each.name, live, factory}
                                         : Difference{each.name, factory, live});
    }
    return differences;
}

// ---- reset --------------------------------------------------------------------------------------

int badTargets(const Options& options) {
    const int ways = (options.operands.empty() ? 0 : 1) + (options.prefixes.empty() ? 0 : 1) +
                     (options.all ? 1 : 0);
    if (ways != 1) {
        complain("reset needs names, --prefix or --all, one of them");
        return kUsage;
    }
    if (!options.yes && !options.dry_run && !onTerminal(STDIN_FILENO)) {
        complain("reset asks first, and there is no terminal to answer; --yes says yes");
        return kUsage;
    }
    return kDone;
}

int namedDeviations(const Bus& bus, const std::vector<std::string>& names,
                    const FactoryRows& factory, std::vector<Deviation>& deviations) {
    Values live;
    int status = fetchNamed(bus, names, live);
    for (std::size_t i = 0; live && i < live->count; ++i) {
        const kelbus_parameter& item = live->items[i];
        const auto row = factory.find(item.name);
        if (item.value == nullptr) {
            complain("unknown name " + std::string{item.name});
            status = kDifferent;
        } else if (row == factory.end() || row->second.type == kRealtime) {
            complain(std::string{item.name} + " has no factory default");
            status = kDifferent;
        } else if (row->second.default_value != item.value) {
            deviations.push_back({item.name, item.value, row->second.default_value});
        }
    }
    return status;
}

int deviationsToReset(const Bus& bus, const Options& options, const FactoryRows& factory,
                      std::vector<Deviation>& deviations) {
    if (!options.operands.empty()) {
        return namedDeviations(bus, options.operands, factory, deviations);
    }
    Patterns patterns{options.all ? std::vector<std::string>{} : options.prefixes};
    return findDeviations(bus, patterns, factory, deviations);
}

// One name may have been given twice.
void makeUnique(std::vector<Deviation>& deviations) {
    const auto less = [](const Deviation& a, const Deviation& b) { return a.name < b.name; };
    const auto same = [](const Deviation& a, const Deviation& b) { return a.name == b.name; };
    std::sort(deviations.begin(), deviations.end(), less);
    deviations.erase(std::unique(deviations.begin(), deviations.end(), same), deviations.end());
}

std::string question(std::size_t count) {
    return "Set " + std::to_string(count) + (count == 1 ? " parameter" : " parameters") +
           " back to the factory default?";
}

int resetTo(const Bus& bus, const Options& options, const std::vector<Deviation>& deviations) {
    if (deviations.empty()) {
        return kDone;
    }
    if (!options.yes && !confirmed(question(deviations.size()))) {
        complain("nothing was reset");
        return kDifferent;
    }
    std::vector<Change> changes;
    changes.reserve(deviations.size());
    for (const Deviation& each : deviations) {
        changes.push_back({each.name, each.factory, "", each.live});
    }
    return allCarried(changes) ? applyChanges(bus, changes, kindOf(options), "reset") : kBroken;
}

// ---- diff with files
// ------------------------------------------------------------------------------

// No name holds a slash.
bool isFile(const std::string& word) {
    return word == "-" || word.find('/') != std::string::npos;
}

int mixedWords() {
    complain("diff takes files, or beginnings of names, not both");
    return kUsage;
}

int diffFiles(const Options& options) {
    Bus bus;
    std::vector<Change> changes;
    int status = readSettings(options.operands, changes);
    status = status != kDone ? status : openBus(options, bus);
    status = status != kDone ? status : compareWithLive(bus, changes);
    if (status != kDone && status != kDifferent) {
        return status;
    }
    showChanges(options, changes);
    return changes.empty() ? status : int{kDifferent};
}

} // namespace

int runDiff(const Options& options) {
    const auto files = static_cast<std::size_t>(
        std::count_if(options.operands.begin(), options.operands.end(), isFile));
    if (files != 0) {
        return files == options.operands.size() ? diffFiles(options) : mixedWords();
    }
    Patterns patterns{options.operands};
    FactoryRows factory;
    Bus bus;
    std::vector<Deviation> deviations;
    int status = readFactory(factory, false);
    status = status != kDone ? status : openBus(options, bus);
    status = status != kDone ? status : findDeviations(bus, patterns, factory, deviations);
    if (status != kDone && status != kDifferent) {
        return status;
    }
    printDifferences(options, differencesOf(deviations, Secrets{options.show_secrets}, false),
                     "default", "value");
    return deviations.empty() ? status : kDifferent;
}

int runReset(const Options& options) {
    FactoryRows factory;
    Bus bus;
    std::vector<Deviation> deviations;
    int status = badTargets(options);
    status = status != kDone ? status : readFactory(factory, true);
    status = status != kDone ? status : openBus(options, bus);
    status = status != kDone ? status : deviationsToReset(bus, options, factory, deviations);
    if (status != kDone) {
        return status;
    }
    makeUnique(deviations);
    if (options.dry_run) {
        printDifferences(options, differencesOf(deviations, Secrets{options.show_secrets}, true),
                         "value", "new_value");
        return kDone;
    }
    return resetTo(bus, options, deviations);
}

} // namespace kelconf::cli
