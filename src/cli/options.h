// What a command line says, and what the process ends with.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::cli {

// Documented in docs/kelctl.md and in every --help.
enum ExitStatus : int {
    kDone = 0,
    kDifferent = 1,     // a name is unknown, or a difference was found
    kUsage = 2,         // wrong usage, or a value or file that is refused before anything is sent
    kNoService = 3,     // no service, or no answer in time
    kRefused = 4,       // the service refused
    kBroken = 5,        // a broken reply, or a file, an input or an output that does not work
    kDownAndBroken = 6, // status: no service, and files that are not in order
    kInterrupted = 130  // Ctrl-C, as shells report it
};

enum class Colour { kAuto, kAlways, kNever };

struct Options {
    // Of every command.
    bool json = false;
    bool null_ended = false; // -0: entries end with a zero byte
    bool show_secrets = false;
    bool no_colour = false;
    bool quiet = false;
    std::string colour = "auto"; // auto, always, never
    double request_timeout = 5;  // seconds that one request may take

    // Of single commands.
    bool values_only = false;
    bool direct = false;
    bool no_db = false;
    bool force = false;
    bool yes = false;
    bool dry_run = false;
    bool all = false;
    std::vector<std::string> prefixes; // --prefix
    std::uint64_t count = 0;           // changes after which watch ends; 0: none
    double watch_timeout = 0;          // seconds after which watch ends; 0: never
    bool long_form = false;
    std::optional<std::string> fallback; // get --default
    bool initial = false;
    bool changed = false;
    std::string command; // --exec
    std::vector<std::string> operands;

    // Of commands that take at most one.
    [[nodiscard]] std::string operand() const { return operands.empty() ? "" : operands.front(); }
    // What ends an entry that is printed.
    [[nodiscard]] std::string_view entryEnd() const { return {null_ended ? "\0" : "\n", 1}; }
};

} // namespace kelconf::cli
