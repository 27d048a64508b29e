#include "cli/command_line.h"

#include "cli/help.h"
#include "cli/option_table.h"
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

constexpr double kLongest = 1e6; // seconds, so that milliseconds fit an int

// ---- What a line of words means -------------------------------------------------------------

// The options as getopt_long wants them; an option's value is its place in optionTable(), from
// kFirst on.
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
        for (std::size_t i = 0; i < optionTable().size(); ++i) {
            if (has(optionTable()[i], command)) {
                add(optionTable()[i].flags, optionTable()[i].argument != nullptr,
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
            takeOption(reading, optionTable()[static_cast<std::size_t>(value - Wanted::kFirst)],
                       optarg);
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

} // namespace kelconf::cli
