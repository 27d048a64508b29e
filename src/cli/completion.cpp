#include "cli/completion.h"

#include "catalog/catalog.h"
#include "catalog/value_rules.h"
#include "cli/option_table.h"
#include "cli/output/output.h"
#include "cli/output/shown_text.h"
#include "cli/session/bus_session.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

namespace kelconf::cli {

namespace {

constexpr unsigned kPatience = 1;     // seconds that a user at the TAB key waits for
constexpr int kServicePatience = 700; // ms of these for the service; the rest is for default.db
constexpr std::size_t kAtOnce = 24;   // names that are offered in full: a screen of lines

void offer(std::string_view word, std::string_view help = {}) {
    out(word);
    if (!help.empty()) {
        out("\t");
        out(help);
    }
    out("\n");
}

// What stands before the word under the cursor, and that word.
struct TypedLine {
    std::string_view group; // first word of a command of two
    const Command* command = nullptr;
    std::vector<OptionHelp> options;
    const OptionHelp* open = nullptr; // the option whose argument is under the cursor
    bool operands_only = false;       // "--" was there
    int operands = 0;
    std::string_view current;
};

bool hasFlag(const OptionHelp& option, std::string_view word) {
    const std::string all = "," + std::string{option.flags} + ",";
    return all.find("," + std::string{word} + ",") != std::string::npos;
}

const OptionHelp* takesArgument(const TypedLine& line, std::string_view word) {
    const auto found =
        std::find_if(line.options.begin(), line.options.end(), [&](const OptionHelp& option) {
            return option.argument != nullptr && hasFlag(option, word);
        });
    return found == line.options.end() ? nullptr : &*found;
}

void takeCommandWord(TypedLine& line, std::string_view word) {
    const std::string name =
        line.group.empty() ? std::string{word} : std::string{line.group} + " " + std::string{word};
    for (const Command& command : commands()) {
        if (command.name == name) {
            line.command = &command;
            line.options = optionsOf(line.command);
        }
    }
    line.group = word;
}

TypedLine readLine(std::span<const char* const> words) {
    TypedLine line;
    line.options = optionsOf(nullptr);
    if (words.empty()) {
        return line;
    }
    for (const std::string_view word : words.first(words.size() - 1)) {
        if (line.open != nullptr) {
            line.open = nullptr;
        } else if (line.operands_only || !word.starts_with('-') || word == "-") {
            line.command == nullptr ? takeCommandWord(line, word)
                                    : static_cast<void>(++line.operands);
        } else if (word == "--") {
            line.operands_only = true;
        } else {
            line.open = takesArgument(line, word);
        }
    }
    line.current = words.back();
    return line;
}

// In ascending order: the live names, or those of default.db.
std::vector<std::string> knownNames() {
    std::vector<std::string> names = namesInView();
    if (!names.empty()) {
        return names;
    }
    Bus bus;
    kelbus* client = nullptr;
    kelbus_values* listing = nullptr;
    if (kelbus_open(&client) == KELBUS_OK) {
        bus.client.reset(client);
        static_cast<void>(kelbus_get_all(client, &listing, kServicePatience));
    }
    if (const Values live = ownedValues(listing)) {
        for (std::size_t i = 0; i < live->count; ++i) {
            names.emplace_back(live->items[i].name);
        }
        return names;
    }
    if (Catalog catalog; catalog) {
        catalog.forEach([&](Parameter&& parameter) { names.push_back(std::move(parameter.name)); });
    }
    return names;
}

std::vector<std::string> namesBelow(std::string_view prefix) {
    std::vector<std::string> names = knownNames();
    std::erase_if(names, [&](const std::string& name) {
        return !startsWith(name, prefix) || !showsAsItIs(name);
    });
    return names;
}

// Names up to the first dot from the byte `from` on; while that leaves only one, to the next.
std::vector<std::string> groupsOf(const std::vector<std::string>& names, std::size_t from) {
    std::vector<std::string> groups;
    for (const std::string& name : names) {
        const std::size_t dot = name.find('.', from);
        const std::string group = name.substr(0, dot == std::string::npos ? dot : dot + 1);
        if (groups.empty() || groups.back() != group) {
            groups.push_back(group);
        }
    }
    const bool narrows = groups.size() == 1 && groups.front().size() > from && names.size() > 1;
    return narrows ? groupsOf(names, groups.front().size()) : groups;
}

// `least`: bytes of the shortest beginning that is of use.
void offerNames(std::string_view before, std::string_view prefix, const char* after = "",
                std::size_t least = 1) {
    std::vector<std::string> names = namesBelow(prefix);
    const std::size_t count = names.size();
    if (count > kAtOnce) {
        names = groupsOf(names, std::max(prefix.size(), least - 1));
    }
    for (const std::string& name : names) {
        offer(std::string{before} + name + (name.ends_with('.') ? "" : after));
    }
}

// NAME=VALUE: names first, then the words among the parameter's options.
void offerSetting(std::string_view word) {
    const std::size_t equals = word.find('=');
    if (equals == std::string_view::npos) {
        offerNames("", word, "=");
        return;
    }
    const std::string_view name = word.substr(0, equals);
    Catalog catalog;
    const auto parameter = catalog ? catalog.find(name) : std::nullopt;
    if (!parameter) {
        return;
    }
    for (const std::string_view value : optionWords(parameter->options)) {
        if (startsWith(value, word.substr(equals + 1)) && showsAsItIs(value)) {
            offer(std::string{name} + "=" + std::string{value});
        }
    }
}

int offerArgument(std::string_view before, std::string_view argument, std::string_view word) {
    if (argument == "NAME" || argument == "NAME N" || argument == "PREFIX") {
        offerNames(before, word);
    } else if (argument == "NAME=VALUE") {
        offerSetting(word);
    } else if (argument == "WHEN") {
        for (const std::string_view when : {"auto", "always", "never"}) {
            if (startsWith(when, word)) {
                offer(std::string{before}.append(when));
            }
        }
    }
    return argument == "FILE" ? kFileNames : kDone;
}

int offerOptions(const TypedLine& line) {
    const std::size_t equals = line.current.find('=');
    if (equals != std::string_view::npos) {
        const OptionHelp* option = takesArgument(line, line.current.substr(0, equals));
        return option == nullptr ? int{kDone}
                                 : offerArgument(line.current.substr(0, equals + 1),
                                                 option->argument, line.current.substr(equals + 1));
    }
    for (const OptionHelp& option : line.options) {
        const std::string_view flags = option.flags;
        const std::string_view flag = flags.substr(flags.find("--"));
        if (startsWith(flag, line.current)) {
            offer(flag, option.help);
        }
    }
    return kDone;
}

void offerCommands(const TypedLine& line) {
    std::vector<std::string> offered;
    for (const Command& command : commands()) {
        const std::string_view name = command.name;
        const std::size_t blank = name.find(' ');
        const bool first = line.group.empty();
        if (!first && (blank == std::string_view::npos || name.substr(0, blank) != line.group)) {
            continue;
        }
        const std::string word{first ? name.substr(0, blank) : name.substr(blank + 1)};
        if (startsWith(word, line.current) &&
            std::find(offered.begin(), offered.end(), word) == offered.end()) {
            offer(word, first && blank != std::string_view::npos ? "" : command.summary);
            offered.push_back(word);
        }
    }
}

int offerFor(const TypedLine& line) {
    if (line.open != nullptr) {
        return offerArgument("", line.open->argument, line.current);
    }
    if (line.current.starts_with('-') && !line.operands_only) {
        return offerOptions(line);
    }
    if (line.command == nullptr) {
        offerCommands(line);
        return kDone;
    }
    if (line.command->run == runGroup) {
        // A name of fewer bytes is no group: it answers only where it is a whole one.
        offerNames("", line.current, "", kGroupBytes);
        return kDone;
    }
    const bool full = line.command->most != kAnyNumber && line.operands >= line.command->most;
    return full ? int{kDone} : offerArgument("", line.command->operands, line.current);
}

} // namespace

int complete(std::span<const char* const> words) {
    // A flash or a service that hangs must not hang the user's shell.
    static_cast<void>(std::signal(SIGALRM, [](int /*signal*/) { _exit(kDone); }));
    alarm(kPatience);
    return offerFor(readLine(words));
}

} // namespace kelconf::cli
