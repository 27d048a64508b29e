// export and import.

#include "catalog/secrets.h"
#include "cli/commands/commands.h"
#include "cli/output/export_format.h"
#include "cli/output/listing.h"
#include "cli/output/output.h"
#include "cli/session/changes.h"
#include "cli/session/input.h"
#include "cli/session/live_values.h"

#include <unistd.h>

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

namespace kelconf::cli {

namespace {

constexpr std::size_t kMostFaults = 20; // said of one file; it may be no text at all

std::string labelOf(const std::string& path, std::size_t line) {
    return (path == "-" ? "standard input" : path) + ":" + std::to_string(line) + ": ";
}

int readExport(const std::string& path, std::vector<Change>& changes) {
    std::string content;
    if (!readInput(path, content)) {
        return kBroken;
    }
    ParsedExport parsed = parseExport(content);
    const std::size_t said = std::min(parsed.faults.size(), kMostFaults);
    for (std::size_t i = 0; i < said; ++i) {
        complain((path == "-" ? "standard input" : path) + ":" + parsed.faults[i]);
    }
    if (said < parsed.faults.size()) {
        complain("and " + std::to_string(parsed.faults.size() - said) + " more");
    }
    for (ExportEntry& entry : parsed.entries) {
        changes.push_back(
            {std::move(entry.name), std::move(entry.value), labelOf(path, entry.line), ""});
    }
    return parsed.faults.empty() && allCarried(changes) ? kDone : kUsage;
}

// Takes out what is as it is to be already; the rest learns its live value.
int compareWithLive(const Bus& bus, std::vector<Change>& changes) {
    std::unordered_map<std::string, std::string> live;
    Patterns all{{}};
    int status = forEachLive(bus, all, [&](std::string_view name, std::string_view value) {
        live.emplace(name, value);
    });
    if (status != kDone) {
        return status;
    }
    std::vector<Change> different;
    for (Change& change : changes) {
        const auto found = live.find(change.name);
        if (found == live.end()) {
            complain(change.where + "unknown name " + change.name);
            status = kDifferent;
        } else if (found->second != change.value) {
            change.before = std::move(found->second);
            different.push_back(std::move(change));
        }
    }
    changes = std::move(different);
    return status;
}

void showChanges(const Options& options, const std::vector<Change>& changes) {
    const Secrets secrets{options.show_secrets};
    std::vector<Difference> differences;
    differences.reserve(changes.size());
    for (const Change& change : changes) {
        differences.push_back({change.name, secrets.shown(change.name, change.before),
                               secrets.shown(change.name, change.value)});
    }
    printDifferences(options, differences, "value", "new_value");
}

// Of a name that stands in several files the last value counts.
void keepLast(std::vector<Change>& changes) {
    std::unordered_map<std::string_view, const Change*> last;
    for (const Change& change : changes) {
        last[change.name] = &change;
    }
    std::vector<Change> kept;
    for (const Change& change : changes) {
        if (last[change.name] == &change) {
            kept.push_back(change);
        }
    }
    changes = std::move(kept);
}

int prepareImport(const Bus& bus, const Options& options, std::vector<Change>& changes) {
    int status = kDone;
    for (const std::string& path : options.operands) {
        const int read = readExport(path, changes);
        status = read == kDone ? status : read;
    }
    keepLast(changes);
    status = status != kDone ? status : compareWithLive(bus, changes);
    if (status == kDone && !allAllowed(changes, options.force)) {
        status = kUsage;
    }
    if (status != kDone) {
        complain("nothing was imported");
    }
    return status;
}

} // namespace

int runExport(const Options& options) {
    if (options.json || options.null_ended) {
        complain("export has a form of its own; list takes --json and --null");
        return kUsage;
    }
    Patterns patterns{options.operands};
    const Secrets secrets{options.show_secrets};
    std::unordered_set<std::string> states;
    if (Catalog catalog; catalog) {
        for (std::string& name : catalog.namesOfType(kRealtime)) {
            states.insert(std::move(name));
        }
    }
    Bus bus;
    if (int status = openBus(options, bus); status != kDone) {
        return status;
    }
    std::string text{kExportHeader};
    const int status =
        forEachLive(bus, patterns, [&](std::string_view name, std::string_view value) {
            if (!isState(name, states.contains(std::string{name}) ? kRealtime : "")) {
                out(text);
                text = secrets.hides(name)
                           ? exportNote(name, "secret, left out without --show-secrets")
                           : exportLine(name, value);
            }
        });
    if (status == kDone || status == kDifferent) { // without an answer not even the header
        out(text);
    }
    return status;
}

int runImport(const Options& options) {
    Bus bus;
    std::vector<Change> changes;
    if (int status = openBus(options, bus); status != kDone) {
        return status;
    }
    if (int status = prepareImport(bus, options, changes); status != kDone) {
        return status;
    }
    if (options.dry_run) {
        showChanges(options, changes);
        return kDone;
    }
    const int status = applyChanges(bus, changes, kindOf(options), "import");
    if (status == kDone && onTerminal(STDOUT_FILENO)) {
        out(std::to_string(changes.size()) +
            (changes.size() == 1 ? " value set\n" : " values set\n"));
    }
    return status;
}

} // namespace kelconf::cli
