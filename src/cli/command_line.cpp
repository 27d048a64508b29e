#include "cli/command_line.h"

#include "cli/output/nearest.h"
#include "cli/output/output.h"

#include <getopt.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

namespace kelconf::cli {

namespace {

using Field = std::variant<bool Options::*, double Options::*, std::uint64_t Options::*,
                           std::string Options::*, std::vector<std::string> Options::*,
                           std::optional<std::string> Options::*>;

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

constexpr OptionHelp kHelp{"-h,--help", nullptr, "show this text"};
constexpr OptionHelp kVersion{"-V,--version", nullptr, "show the version"};

constexpr const char* kStatuses =
    "Exit status: 0 done; 1 a name is unknown or a difference was found; 2 wrong usage or a value\n"
    "that is refused here; 3 no service, or no answer in time; 4 the service refused; 5 a broken\n"
    "reply, file, input or output; 6 status alone: 3 and 5 at once; 130 Ctrl-C.\n";

constexpr double kLongest = 1e6; // seconds, so that milliseconds fit an int

bool has(const OptionRow& row, const Command* command) {
    return row.bit == 0 || (command != nullptr && (row.bit & command->options) != 0);
}

// ---- What a line of words means -------------------------------------------------------------

// The options as getopt_long wants them; an option's value is its place in kOptions, from kFirst
// on.
struct Wanted {
    static constexpr int kFirst = 256; // above all letters
    std::vector<option> names;
    std::vector<std::pair<char, int>> letters;
    std::string letter_list;

    Wanted(const Command* command, bool stop_at_operand) {
        // '+': stop at the first word that is no option. ':': an argument that is missing is told.
        letter_list = stop_at_operand ? "+:" : ":";
        add(kHelp.flags, false, 'h');
        add(kVersion.flags, false, 'V');
        for (std::size_t i = 0; i < kOptions.size(); ++i) {
            if (has(kOptions[i], command)) {
                add(kOptions[i].flags, kOptions[i].argument != nullptr,
                    kFirst + static_cast<int>(i));
            }
        }
        names.push_back({});
    }

    void add(const char* flags, bool argument, int value) {
        const std::string_view all = flags;
        if (all[1] != '-') {
            letters.emplace_back(all[1], value);
            letter_list.append(1, all[1]).append(argument ? ":" : "");
        }
        names.push_back({flags + all.find("--") + 2, argument ? required_argument : no_argument,
                         nullptr, value});
    }

    [[nodiscard]] int valueOf(int found) const {
        const auto letter = std::find_if(letters.begin(), letters.end(),
                                         [&](const auto& each) { return each.first == found; });
        return letter == letters.end() ? found : letter->second;
    }
};

// One line of words under way. What is wrong is in `fault`.
struct Reading {
    Invocation invocation;
    std::string fault;
    bool help = false;
    bool version = false;
};

template <typename Number>
bool readNumber(const char* text, Number& number) {
    const std::string_view digits = text;
    const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return end.ec == std::errc{} && end.ptr == digits.data() + digits.size();
}

void takeOption(Reading& reading, const OptionRow& row, const char* argument) {
    const auto take = [&](auto member) {
        auto& field = reading.invocation.options.*member;
        using Type = std::remove_reference_t<decltype(field)>;
        if constexpr (std::is_same_v<Type, bool>) {
            field = true;
        } else if constexpr (std::is_same_v<Type, std::vector<std::string>>) {
            field.emplace_back(argument);
        } else if constexpr (std::is_same_v<Type, std::string> ||
                             std::is_same_v<Type, std::optional<std::string>>) {
            field = argument;
        } else if constexpr (std::is_same_v<Type, double>) {
            if (!readNumber(argument, field) || !(field >= 0 && field <= kLongest)) {
                reading.fault = "a time limit is a number of seconds from 0 to 1000000";
            }
        } else if (!readNumber(argument, field) || field == 0) {
            const std::string_view flags = row.flags;
            reading.fault = std::string{flags.substr(flags.find("--"))} + " is a number from 1 on";
        }
    };
    std::visit(take, row.field);
}

std::string faultOf(int found, const char* word) {
    const std::string said = word;
    if (found == ':') {
        return said + " needs an argument";
    }
    const std::size_t equals = said.find('=');
    return optopt >= Wanted::kFirst && equals != std::string::npos
               ? said.substr(0, equals) + " takes no argument"
               : "there is no option " + (said.starts_with("--")
                                              ? said
                                              : "-" + std::string(1, static_cast<char>(optopt)));
}

// Takes the options of `words`, the first of which is the program's or command's own name, and
// moves the operands to the end (but when it stops at the first). The number of words before them.
int takeOptions(Reading& reading, std::vector<char*>& words, const Command* command) {
    const Wanted wanted{command, command == nullptr};
    const int count = static_cast<int>(words.size());
    opterr = 0;
    optind = 0; // begin anew
    int found = 0;
    while (reading.fault.empty() &&
           (found = getopt_long(count, words.data(), wanted.letter_list.c_str(),
                                wanted.names.data(), nullptr)) != -1) {
        const int value = wanted.valueOf(found);
        if (found == '?' || found == ':') {
            reading.fault = faultOf(found, words[static_cast<std::size_t>(optind) - 1]);
        } else if (value == 'h') {
            reading.help = true;
        } else if (value == 'V') {
            reading.version = true;
        } else {
            takeOption(reading, kOptions[static_cast<std::size_t>(value - Wanted::kFirst)], optarg);
        }
    }
    return optind;
}

const Command* commandOf(std::string_view first, std::string_view second) {
    for (const Command& command : commands()) {
        const std::string_view name = command.name;
        const std::size_t blank = name.find(' ');
        if (name.substr(0, blank) == first &&
            (blank == std::string_view::npos || name.substr(blank + 1) == second)) {
            return &command;
        }
    }
    return nullptr;
}

bool isGroup(std::string_view word) {
    const auto below = [&](const Command& command) {
        const std::string_view name = command.name;
        return name.starts_with(word) && name.substr(word.size()).starts_with(' ');
    };
    return std::any_of(commands().begin(), commands().end(), below);
}

std::string noCommand(const std::string& word) {
    std::vector<std::string> names;
    for (const Command& command : commands()) {
        const std::string_view name = command.name;
        names.emplace_back(name.substr(0, name.find(' ')));
    }
    return "there is no command " + word + didYouMean(nearest(word, names));
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
    const bool nameless = std::any_of(options.operands.begin(), options.operands.end(),
                                      [](const std::string& operand) { return operand.empty(); });
    return nameless ? "an operand is empty" : nullptr;
}

std::string operandFault(const Command& command, const std::vector<std::string>& operands) {
    const int count = static_cast<int>(operands.size());
    if (count < command.least) {
        return std::string{command.operands} + " is required";
    }
    return command.most != kAnyNumber && count > command.most
               ? "one word too many: " + operands[static_cast<std::size_t>(command.most)]
               : "";
}

// ---- Help -----------------------------------------------------------------------------------

constexpr std::size_t kHelpColumn = 30;

void addRow(std::string& text, std::string left, std::string_view right) {
    left.insert(0, "  ");
    left.resize(std::max(left.size() + 1, kHelpColumn), ' ');
    text.append(left).append(right).append("\n");
}

void addOptionRows(std::string& text, const char* title, const std::vector<OptionHelp>& options) {
    text.append("\n").append(title).append(":\n");
    for (const OptionHelp& each : options) {
        addRow(text,
               each.argument == nullptr ? each.flags
                                        : std::string{each.flags} + " " + each.argument,
               each.help);
    }
}

// Of the options of a command those that every command has, or the others.
std::vector<OptionHelp> optionRows(const Command* command, bool of_every) {
    std::vector<OptionHelp> rows;
    if (of_every) {
        rows.push_back(kHelp);
    } else if (command == nullptr) {
        rows.push_back(kVersion);
    }
    for (const OptionRow& row : kOptions) {
        if (has(row, command) && (row.bit == 0) == of_every) {
            rows.push_back({row.flags, row.argument, row.help});
        }
    }
    return rows;
}

void addOptions(std::string& text, const Command* command) {
    addOptionRows(text, "Options of every command", optionRows(command, true));
    if (const auto rows = optionRows(command, false); !rows.empty()) {
        addOptionRows(text, "Options", rows);
    }
}

std::string helpOf(const Command& command) {
    const bool many = command.most == kAnyNumber;
    const std::string operands = std::string{command.operands} + (many ? "..." : "");
    std::string text =
        std::string{command.summary} + "\nUsage: kelctl " + command.name + " [OPTIONS]";
    if (command.most != 0) {
        text += command.least > 0 ? " " + operands : " [" + operands + "]";
        text += "\n\nOperands:\n";
        addRow(text, operands, command.operand_help);
    } else {
        text += "\n";
    }
    addOptions(text, &command);
    return text.append("\n").append(command.details).append("\n\n").append(kStatuses);
}

// The commands, or those below the first word of a command of two.
std::string helpOfGroup(std::string_view group) {
    std::string text =
        group.empty() ? "Reads, sets and watches the parameters of the configuration service.\n"
                        "Usage: kelctl [OPTIONS] COMMAND\n"
                      : "commands on a " + std::string{group} + "\nUsage: kelctl " +
                            std::string{group} + " COMMAND\n";
    if (group.empty()) {
        addOptions(text, nullptr);
    }
    text += "\nCommands:\n";
    std::string_view last;
    for (const Command& command : commands()) {
        const std::string_view name = command.name;
        const std::size_t blank = name.find(' ');
        const std::string_view first = name.substr(0, blank);
        if (!group.empty() && first == group && blank != std::string_view::npos) {
            addRow(text, std::string{name.substr(blank + 1)}, command.summary);
        } else if (group.empty() && first != last) {
            const bool gathers = blank != std::string_view::npos;
            addRow(text, std::string{first},
                   gathers ? "commands on a " + std::string{first} : command.summary);
        }
        last = first;
    }
    return text.append("\n").append(kStatuses);
}

// ---- One line ---------------------------------------------------------------------------------

Invocation wrong(const std::string& reason, const std::string& which) {
    complain(reason + " (kelctl " + which + (which.empty() ? "" : " ") + "--help shows the usage)");
    return {nullptr, kUsage, {}};
}

Invocation shown(const std::string& text) {
    out(text);
    return {};
}

// `kelctl help`, `kelctl help COMMAND`.
Invocation helpOn(const std::vector<std::string>& words) {
    if (words.empty()) {
        return shown(helpOfGroup(""));
    }
    const Command* command = commandOf(words[0], words.size() > 1 ? words[1] : "");
    if (command != nullptr) {
        return shown(helpOf(*command));
    }
    return isGroup(words[0]) ? shown(helpOfGroup(words[0])) : wrong(noCommand(words[0]), "");
}

} // namespace

Invocation readCommandLine(int argc, const char* const* argv) {
    std::vector<std::string> texts{argv, argv + argc}; // getopt_long moves the words about
    std::vector<char*> words;
    words.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        words.push_back(text.data());
    }
    Reading reading;
    int at = takeOptions(reading, words, nullptr);
    if (!reading.fault.empty()) {
        return wrong(reading.fault, "");
    }
    if (reading.version) {
        return shown("kelctl " KELCONF_VERSION "\n");
    }
    std::vector<std::string> rest{words.begin() + std::min(at, argc), words.end()};
    if (reading.help || (!rest.empty() && rest[0] == "help")) {
        return helpOn(reading.help || rest.empty() ? std::vector<std::string>{}
                                                   : std::vector(rest.begin() + 1, rest.end()));
    }
    if (rest.empty()) {
        return wrong("a command is missing", "");
    }
    const bool group = isGroup(rest[0]);
    const Command* command = commandOf(rest[0], rest.size() > 1 ? rest[1] : "");
    if (command == nullptr) {
        if (group && rest.size() > 1 && (rest[1] == "-h" || rest[1] == "--help")) {
            return shown(helpOfGroup(rest[0]));
        }
        return group ? wrong("a command of " + rest[0] + " is missing", rest[0])
                     : wrong(noCommand(rest[0]), "");
    }
    words.erase(words.begin(), words.begin() + at + (group ? 1 : 0));
    std::string mark = "--";
    if (command->run == runAdd) { // "-5" is a number there, no option
        const auto negative = std::find_if(words.begin(), words.end(), [](const char* word) {
            return word[0] == '-' && word[1] >= '0' && word[1] <= '9';
        });
        words.insert(negative, mark.data());
    }
    at = takeOptions(reading, words, command);
    if (reading.help && reading.fault.empty()) {
        return shown(helpOf(*command));
    }
    if (reading.version && reading.fault.empty()) {
        return shown("kelctl " KELCONF_VERSION "\n");
    }
    Options& options = reading.invocation.options;
    options.operands.assign(words.begin() + at, words.end());
    if (reading.fault.empty()) {
        reading.fault = operandFault(*command, options.operands);
    }
    if (const char* reason = contradiction(options); reading.fault.empty() && reason != nullptr) {
        reading.fault = reason;
    }
    if (!reading.fault.empty()) {
        return wrong(reading.fault, command->name);
    }
    beQuiet(options.quiet);
    reading.invocation.command = command;
    return std::move(reading.invocation);
}

std::vector<OptionHelp> optionsOf(const Command* command) {
    std::vector<OptionHelp> options{kHelp};
    if (command == nullptr) {
        options.push_back(kVersion);
    }
    for (const OptionRow& row : kOptions) {
        if (has(row, command)) {
            options.push_back({row.flags, row.argument, row.help});
        }
    }
    return options;
}

} // namespace kelconf::cli
