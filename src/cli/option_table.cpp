#include "cli/option_table.h"

#include <array>

namespace kelconf::cli {

namespace {

constexpr std::array kOptionTable = {
    OptionRow{kValuesOnly, "-n,--values-only", nullptr, &Options::values_only,
              "print the values without the names"},
    OptionRow{kDirect, "--direct", nullptr, &Options::direct,
              "have the values stored before the service answers"},
    OptionRow{kNoDb, "--no-db", nullptr, &Options::no_db,
              "do not store the values: they are gone after a restart of the service"},
    OptionRow{kForce, "-f,--force", nullptr, &Options::force,
              "set values that break the parameter's range, step or options, too"},
    OptionRow{kYes, "-y,--yes", nullptr, &Options::yes, "do not ask"},
    OptionRow{kDryRun, "--dry-run", nullptr, &Options::dry_run,
              "show what would change, change nothing"},
    OptionRow{kAll, "--all", nullptr, &Options::all, "every parameter that has a factory default"},
    OptionRow{kPrefix, "--prefix", "PREFIX", &Options::prefixes,
              "every parameter whose name begins with PREFIX"},
    OptionRow{kCount, "-c,--count", "N", &Options::count, "end after N changes"},
    OptionRow{kTimeout, "--timeout", "SECONDS", &Options::watch_timeout, "end after SECONDS"},
    OptionRow{kLong, "-l,--long", nullptr, &Options::long_form,
              "with type, range, step, options, default and access"},
    OptionRow{kDefault, "--default", "TEXT", &Options::fallback,
              "print TEXT as the value of a name that is unknown, which is then no error"},
    OptionRow{kInitial, "-i,--initial", nullptr, &Options::initial,
              "first the present values, then the changes, and nothing missed in between"},
    OptionRow{kChanged, "--changed", nullptr, &Options::changed,
              "only what differs from its factory default"},
    OptionRow{kExec, "--exec", "COMMAND", &Options::command,
              "run COMMAND in a shell for each change, one at a time, instead of printing it"},
    OptionRow{kWait, "--wait", "SECONDS", &Options::watch_timeout,
              "wait so long for the service to answer"},
    OptionRow{0, "--json", nullptr, &Options::json, "print JSON, for programs"},
    OptionRow{0, "-0,--null", nullptr, &Options::null_ended,
              "end entries with a zero byte: values may hold line breaks"},
    OptionRow{0, "--show-secrets", nullptr, &Options::show_secrets,
              "show passwords instead of stars"},
    OptionRow{0, "--color", "WHEN", &Options::colour, "colour: auto, always or never"},
    OptionRow{0, "--no-color", nullptr, &Options::no_colour, "the same as --color never"},
    OptionRow{0, "-q,--quiet", nullptr, &Options::quiet, "say nothing on standard error"},
    OptionRow{0, "--request-timeout", "SECONDS", &Options::request_timeout,
              "how long one request to the service may take (5)"},
};

} // namespace

std::span<const OptionRow> optionTable() {
    return kOptionTable;
}

bool has(const OptionRow& row, const Command* command) {
    return row.bit == 0 || (command != nullptr && (row.bit & command->options) != 0);
}

std::vector<OptionHelp> optionsOf(const Command* command) {
    std::vector<OptionHelp> options{kHelp};
    if (command == nullptr) {
        options.push_back(kVersion);
    }
    for (const OptionRow& row : kOptionTable) {
        if (has(row, command)) {
            options.push_back({row.flags, row.argument, row.help});
        }
    }
    return options;
}

} // namespace kelconf::cli
