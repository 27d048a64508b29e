#include "cli/command_line.h"

#include "cli/output/output.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <string_view>
#include <variant>

namespace kelconf::cli {

namespace {

using Field = std::variant<bool Options::*, double Options::*, std::uint64_t Options::*,
                           std::string Options::*, std::vector<std::string> Options::*>;

struct OptionRow {
    std::uint32_t bit; // OptionBit; 0: every command has it
    const char* flags;
    const char* argument; // its name in the help; null: none
    Field field;
    const char* help;
};

constexpr std::array kOptions = {
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
    OptionRow{0, "--json", nullptr, &Options::json, "print JSON, for programs"},
    OptionRow{0, "-0,--null", nullptr, &Options::null_ended,
              "end entries with a zero byte: values may hold line breaks"},
    OptionRow{0, "--show-secrets", nullptr, &Options::show_secrets,
              "show passwords instead of stars"},
    OptionRow{0, "--color", "WHEN", &Options::colour, "colour: auto, always or never"},
    OptionRow{0, "--no-color", nullptr, &Options::no_colour, "the same as --color never"},
    OptionRow{0, "--request-timeout", "SECONDS", &Options::request_timeout,
              "how long one request to the service may take (5)"},
};

constexpr OptionHelp kHelp{"-h,--help", nullptr, "show this text"};
constexpr OptionHelp kVersion{"-V,--version", nullptr, "show the version"};

constexpr const char* kStatuses =
    "Exit status: 0 done; 1 a name is unknown or a difference was found; 2 wrong usage or a value\n"
    "that is refused here; 3 no service, or no answer in time; 4 the service refused; 5 a broken\n"
    "reply, file, input or output; 130 Ctrl-C.";

constexpr double kLongest = 1e6; // seconds, so that milliseconds fit an int

CLI::Option* addOption(CLI::App& app, Options& options, const OptionRow& row) {
    const auto add = [&](auto member) -> CLI::Option* {
        using Type = std::remove_reference_t<decltype(options.*member)>;
        if constexpr (std::is_same_v<Type, bool>) {
            return app.add_flag(row.flags, options.*member, row.help);
        } else {
            return app.add_option(row.flags, options.*member, row.help)->type_name(row.argument);
        }
    };
    CLI::Option* option = std::visit(add, row.field);
    if (std::holds_alternative<std::vector<std::string> Options::*>(row.field)) {
        option->expected(1)->allow_extra_args(false);
        option->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    } else {
        option->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    }
    return option;
}

void addOptions(CLI::App& app, Options& options, std::uint32_t bits) {
    for (const OptionRow& row : kOptions) {
        if (row.bit == 0 || (row.bit & bits) != 0) {
            addOption(app, options, row)
                ->group(row.bit == 0 ? "Options of every command" : "Options");
        }
    }
}

std::string footerOf(const Command& command) {
    return std::string{command.details} + "\n\n" + kStatuses;
}

void setUp(CLI::App& app, const Command& command, Options& options) {
    app.footer(footerOf(command));
    app.set_help_flag(kHelp.flags, kHelp.help)->group("Options of every command");
    addOptions(app, options, command.options);
    if (command.most == 0) {
        return;
    }
    CLI::Option* operands =
        app.add_option(command.operands, options.operands, command.operand_help);
    operands->type_name("")->allow_extra_args(true);
    operands->expected(command.least, command.most == kAnyNumber
                                          ? CLI::detail::expected_max_vector_size
                                          : command.most);
    operands->required(command.least > 0);
}

// "tree check" becomes `check` below `tree`.
CLI::App* addCommand(CLI::App& app, const Command& command) {
    const std::string_view name = command.name;
    const std::size_t blank = name.find(' ');
    if (blank == std::string_view::npos) {
        return app.add_subcommand(command.name, command.summary);
    }
    const std::string group{name.substr(0, blank)};
    const auto same =
        app.get_subcommands([&](CLI::App* each) { return each->get_name() == group; });
    CLI::App* parent =
        same.empty() ? app.add_subcommand(group, "commands on a " + group) : same.front();
    parent->require_subcommand(1);
    return parent->add_subcommand(std::string{name.substr(blank + 1)}, command.summary);
}

// Only commands that the line can mean get their options: the set-up is a good part of a start.
bool named(const Command& command, int argc, const char* const* argv) {
    const std::string_view name = command.name;
    const std::string_view last = name.substr(name.find(' ') + 1);
    return std::any_of(argv, argv + argc, [&](const char* word) { return last == word; });
}

int usageError(const std::string& reason, const CLI::App& app) {
    const auto parsed = app.get_subcommands();
    const std::string which = parsed.empty() ? "" : " " + parsed.front()->get_name();
    complain(reason + " (kelctl" + which + " --help shows the usage)");
    return kUsage;
}

int badLine(const CLI::App& app, const CLI::ParseError& error) {
    std::string reason = error.what();
    std::replace(reason.begin(), reason.end(), '\n', ' ');
    const auto rest = app.remaining(false);
    if (app.get_subcommands().empty()) {
        reason = rest.empty() ? "a command is missing" : "there is no command " + rest.front();
    }
    return usageError(reason, app);
}

const char* contradiction(const Options& options) {
    if (options.colour != "auto" && options.colour != "always" && options.colour != "never") {
        return "--color is auto, always or never";
    }
    if (options.json && options.null_ended) {
        return "--json and --null exclude each other";
    }
    if (options.direct && options.no_db) {
        return "--direct and --no-db exclude each other";
    }
    const double limits[] = {options.request_timeout, options.watch_timeout};
    for (const double limit : limits) {
        if (!(limit >= 0 && limit <= kLongest)) {
            return "a time limit is a number of seconds from 0 to 1000000";
        }
    }
    const bool nameless = std::any_of(options.operands.begin(), options.operands.end(),
                                      [](const std::string& operand) { return operand.empty(); });
    return nameless ? "an operand is empty" : nullptr;
}

// The words without a "--" that changes nothing, since no word behind it begins with "-": CLI11
// gives what follows it to the program where the command needs no further operand.
std::vector<const char*> withoutIdleMark(int argc, const char* const* argv) {
    std::vector<const char*> words{argv, argv + argc};
    const auto mark = std::find(words.begin(), words.end(), std::string_view{"--"});
    if (mark != words.end() &&
        std::none_of(mark + 1, words.end(), [](const char* word) { return word[0] == '-'; })) {
        words.erase(mark);
    }
    return words;
}

} // namespace

Invocation readCommandLine(int argc, const char* const* argv) {
    Invocation invocation;
    CLI::App app{"Reads, sets and watches the parameters of the configuration service.", "kelctl"};
    app.require_subcommand(1);
    app.footer(kStatuses);
    app.set_help_flag(kHelp.flags, kHelp.help)->group("Options of every command");
    addOptions(app, invocation.options, 0);
    app.add_flag_callback(
        kVersion.flags, [] { throw CLI::CallForVersion("kelctl " KELCONF_VERSION, 0); },
        kVersion.help);
    std::vector<std::pair<const CLI::App*, const Command*>> known;
    for (const Command& command : commands()) {
        CLI::App* added = addCommand(app, command);
        if (named(command, argc, argv)) {
            setUp(*added, command, invocation.options);
        }
        known.emplace_back(added, &command);
    }
    try {
        const std::vector<const char*> words = withoutIdleMark(argc, argv);
        app.parse(static_cast<int>(words.size()), words.data());
    } catch (const CLI::CallForHelp&) {
        out(app.help());
        return invocation;
    } catch (const CLI::CallForVersion& asked) {
        out(std::string{asked.what()} + "\n");
        return invocation;
    } catch (const CLI::ParseError& error) {
        invocation.status = badLine(app, error);
        return invocation;
    }
    if (const char* reason = contradiction(invocation.options)) {
        invocation.status = usageError(reason, app);
        return invocation;
    }
    const auto parsed = std::find_if(known.begin(), known.end(),
                                     [](const auto& entry) { return entry.first->parsed(); });
    invocation.command = parsed->second;
    return invocation;
}

std::vector<OptionHelp> optionsOf(const Command* command) {
    std::vector<OptionHelp> options{kHelp};
    if (command == nullptr) {
        options.push_back(kVersion);
    }
    for (const OptionRow& row : kOptions) {
        if (row.bit == 0 || (command != nullptr && (row.bit & command->options) != 0)) {
            options.push_back({row.flags, row.argument, row.help});
        }
    }
    return options;
}

} // namespace kelconf::cli
