// The table of options: it drives the reading of the command line, the help and the TAB key.
#pragma once

#include "cli/commands/commands.h"

#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace kelconf::cli {

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

std::span<const OptionRow> optionTable();
// True when the command takes the option; null: what stands before a command.
bool has(const OptionRow& row, const Command* command);

// An option as its help has it: flags parted by commas, the last one long; the name of its
// argument, null when it takes none.
struct OptionHelp {
    const char* flags;
    const char* argument;
    const char* help;
};
inline constexpr OptionHelp kHelp{"-h,--help", nullptr, "show this text"};
inline constexpr OptionHelp kVersion{"-V,--version", nullptr, "show the version"};

// The options of a command, those of every command included; null: what stands before a command.
std::vector<OptionHelp> optionsOf(const Command* command);

} // namespace kelconf::cli
