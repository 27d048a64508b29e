#include "catalog/secrets.h"
#include "cli/commands/commands.h"
#include "cli/output/output.h"
#include "cli/session/bus_session.h"
#include "cli/session/changes.h"
#include "cli/session/input.h"
#include "cli/session/typed_value.h"

#include <unistd.h>

#include <utility>

namespace kelconf::cli {

namespace {

// One line feed at the end is the writer's, not the value's: as echo and `kelctl get -n` add it.
bool readValue(Change& change) {
    change.value.clear();
    if (onTerminal(STDIN_FILENO)) {
        if (Secrets{false, {change.name}}.hides(change.name)) {
            return readHiddenLine(change.name, change.value);
        }
        complain("type the value of " + change.name + ", then Ctrl-D");
    }
    if (!readInput("-", change.value)) {
        return false;
    }
    if (!change.value.empty() && change.value.back() == '\n') {
        change.value.pop_back();
    }
    return true;
}

int readChanges(const Options& options, std::vector<Change>& changes) {
    bool input_used = false;
    for (const std::string& operand : options.operands) {
        const std::size_t equals = operand.find('=');
        if (equals == std::string::npos || equals == 0) {
            complain("\"" + operand + "\" is not NAME=VALUE");
            return kUsage;
        }
        Change change{operand.substr(0, equals), operand.substr(equals + 1), "", ""};
        if (change.value == "-") {
            if (std::exchange(input_used, true)) {
                complain("only one value can come from standard input");
                return kUsage;
            }
            if (!readValue(change)) {
                return kBroken;
            }
        }
        changes.push_back(std::move(change));
    }
    return kDone;
}

int checkNames(const Bus& bus, const std::vector<Change>& changes) {
    std::vector<std::string> names;
    names.reserve(changes.size());
    for (const Change& change : changes) {
        names.push_back(change.name);
    }
    Values live;
    int status = fetchNamed(bus, names, live);
    for (std::size_t i = 0; live && i < live->count; ++i) {
        if (live->items[i].value == nullptr) {
            complain("unknown name " + std::string{live->items[i].name});
            status = kDifferent;
        }
    }
    return status;
}

} // namespace

int runSet(const Options& options) {
    std::vector<Change> changes;
    if (int status = readChanges(options, changes); status != kDone) {
        return status;
    }
    if (!allCarried(changes)) {
        return kUsage;
    }
    Bus bus;
    if (int status = openBus(options, bus); status != kDone) {
        return status;
    }
    int status = checkNames(bus, changes);
    if (status == kDone && !allAllowed(changes, options.force)) {
        status = kUsage;
    }
    if (status == kUsage || status == kDifferent) {
        complain("nothing was set");
    }
    if (status != kDone) {
        return status;
    }
    const kelbus_error error = sendChanges(bus, changes, kindOf(options));
    if (error == KELBUS_OK) {
        return kDone;
    }
    saidFailure(bus, error);
    if (error == KELBUS_NO_SERVICE || error == KELBUS_TIMEOUT || error == KELBUS_BROKEN_REPLY) {
        complain("the request may have been carried out; kelctl get shows it");
    }
    return error == KELBUS_UNKNOWN_NAME ? kRefused : exitStatus(error);
}

} // namespace kelconf::cli
