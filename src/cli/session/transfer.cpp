#include "cli/session/transfer.h"

#include "catalog/secrets.h"
#include "cli/output/export_format.h"
#include "cli/output/listing.h"
#include "cli/output/output.h"
#include "cli/output/shown_text.h"
#include "cli/session/import_json.h"
#include "cli/session/input.h"
#include "cli/session/live_values.h"

#include <unistd.h>

#include <algorithm>
#include <unordered_map>
#include <utility>

namespace kelconf::cli {

namespace {

constexpr std::size_t kMostFaults = 20; // said of one file; it may be no text at all

std::string placeIn(const std::string& path) {
    return (path == "-" ? "standard input" : path) + ":";
}

int readFile(const std::string& path, std::vector<Change>& changes) {
    std::string content;
    if (!readInput(path, content)) {
        return kBroken;
    }
    ParsedExport parsed = isJson(content) ? parseJson(content) : parseExport(content);
    const std::size_t said = std::min(parsed.faults.size(), kMostFaults);
    for (std::size_t i = 0; i < said; ++i) {
        complain(placeIn(path) + parsed.faults[i]);
    }
    if (said < parsed.faults.size()) {
        complain("and " + std::to_string(parsed.faults.size() - said) + " more");
    }
    for (ExportEntry& entry : parsed.entries) {
        const std::string line = entry.line == 0 ? "" : std::to_string(entry.line) + ":";
        changes.push_back(
            {std::move(entry.name), std::move(entry.value), placeIn(path) + line + " ", ""});
    }
    return parsed.faults.empty() ? kDone : kUsage;
}

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

} // namespace

int readSettings(const std::vector<std::string>& files, std::vector<Change>& changes) {
    int status = kDone;
    for (const std::string& path : files) {
        const int read = readFile(path, changes);
        status = read == kDone ? status : read;
    }
    keepLast(changes);
    return status == kDone && !allCarried(changes) ? int{kUsage} : status;
}

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

bool confirmed(const std::string& question) {
    toStandardError(question + " [y/N] ");
    std::string answer;
    for (char c = 0; read(STDIN_FILENO, &c, 1) == 1 && c != '\n';) {
        answer += c;
    }
    return answer == "y" || answer == "Y" || answer == "yes";
}

int exportText(const Options& options, std::string& text) {
    Patterns patterns{options.operands};
    const Secrets secrets{options.show_secrets};
    FactoryRows factory;
    if (options.changed) {
        if (int status = readFactory(factory, false); status != kDone) {
            return status;
        }
    } else if (Catalog catalog; catalog) {
        for (const std::string& name : catalog.namesOfType(kRealtime)) {
            factory[name].type = kRealtime;
        }
    }
    Bus bus;
    if (int status = openBus(options, bus); status != kDone) {
        return status;
    }
    text = options.json ? "{" : kExportHeader;
    return forEachLive(bus, patterns, [&](std::string_view live, std::string_view value) {
        const std::string name{live};
        const auto row = factory.find(name);
        const bool known = row != factory.end();
        const bool as_before = options.changed && (!known || row->second.default_value == value);
        if (isState(name, known ? row->second.type : "") || as_before) {
            return;
        }
        const bool hidden = secrets.hides(name);
        if (options.json && !hidden) {
            text += text.size() == 1 ? "\n" : ",\n";
            text += jsonText(name) + ":" + jsonText(value);
        } else if (!options.json) {
            text += hidden ? exportNote(name, "secret, left out without --show-secrets")
                           : exportLine(name, value);
        }
    });
}

} // namespace kelconf::cli
