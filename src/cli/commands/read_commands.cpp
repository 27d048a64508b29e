// get, list and group.

#include "catalog/secrets.h"
#include "cli/commands/commands.h"
#include "cli/output/listing.h"
#include "cli/output/output.h"
#include "cli/session/bus_session.h"
#include "text/text.h"

#include <future>
#include <span>
#include <string>

namespace kelconf::cli {

namespace {

constexpr std::size_t kFewNames = 32; // up to here single look-ups are quicker than a scan

std::span<const kelbus_parameter> itemsOf(const Values& values) {
    return {values->items, values->count};
}

std::vector<Row> rowsOf(const Values& values, const Secrets& secrets, std::string_view prefix) {
    std::vector<Row> rows;
    rows.reserve(values->count);
    for (const kelbus_parameter& item : itemsOf(values)) {
        if (startsWith(item.name, prefix)) {
            rows.push_back(
                {item.name, secrets.shown(item.name, viewOf(item.value)), item.value != nullptr});
        }
    }
    return rows;
}

int complainAboutUnknown(const std::vector<Row>& rows) {
    int status = kDone;
    for (const Row& row : rows) {
        if (!row.known) {
            complain("unknown name " + std::string{row.name} + "; kelctl list shows all names");
            status = kDifferent;
        }
    }
    return status;
}

Secrets secretsAmong(const Options& options, const std::vector<std::string>& names) {
    return names.size() <= kFewNames ? Secrets{options.show_secrets, names}
                                     : Secrets{options.show_secrets};
}

} // namespace

int runGet(const Options& options) {
    Bus bus;
    Values values;
    if (int status = openBus(options, bus); status != kDone) {
        return status;
    }
    if (int status = fetchNamed(bus, options.operands, values); status != kDone) {
        return status;
    }
    const Secrets secrets = secretsAmong(options, options.operands);
    const std::vector<Row> rows = rowsOf(values, secrets, "");
    printRows(options, rows);
    return complainAboutUnknown(rows);
}

int runList(const Options& options) {
    const std::string prefix = options.operand();
    Bus bus;
    Values values;
    if (int status = openBus(options, bus); status != kDone) {
        return status;
    }
    // Read while the service works on its answer.
    std::future<Secrets> secrets =
        std::async(std::launch::async, [&] { return Secrets{options.show_secrets}; });
    if (int status = fetchListing(bus, prefix, values); status != kDone) {
        return status;
    }
    const std::vector<Row> rows = rowsOf(values, secrets.get(), prefix);
    printRows(options, rows);
    return saidNoneBelow(prefix, rows.empty());
}

int runGroup(const Options& options) {
    Bus bus;
    if (int status = openBus(options, bus); status != kDone) {
        return status;
    }
    const std::vector<const char*> groups = cTexts(options.operands);
    kelbus_values* raw = nullptr;
    const kelbus_error error =
        kelbus_get_group(bus.client.get(), groups.data(), groups.size(), &raw, bus.limit);
    const Values values{raw};
    if (error != KELBUS_OK) {
        return saidFailure(bus, error);
    }
    const std::vector<Row> rows = rowsOf(values, Secrets{options.show_secrets}, "");
    printRows(options, rows);
    if (rows.empty()) {
        complain("no parameter belongs to " + options.operands.front());
        return kDifferent;
    }
    return kDone;
}

} // namespace kelconf::cli
