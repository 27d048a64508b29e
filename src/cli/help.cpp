#include "cli/help.h"

#include "cli/option_table.h"

#include <algorithm>
#include <vector>

namespace kelconf::cli {

namespace {

constexpr const char* kStatuses =
    "Exit status: 0 done; 1 a name is unknown or a difference was found; 2 wrong usage or a value\n"
    "that is refused here; 3 no service, or no answer in time; 4 the service refused; 5 a broken\n"
    "reply, file, input or output; 6 status alone: 3 and 5 at once; 130 Ctrl-C.\n";

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
    for (const OptionRow& row : optionTable()) {
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

} // namespace

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

} // namespace kelconf::cli
