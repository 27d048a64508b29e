// The table of commands: it drives parsing, --help and dispatch (cli/command_line.h).
#pragma once

#include "cli/options.h"

#include <cstdint>
#include <span>

namespace kelconf::cli {

// Options beside those that every command takes, as bits.
enum OptionBit : std::uint32_t {
    kValuesOnly = 1U << 0U,
    kDirect = 1U << 1U,
    kNoDb = 1U << 2U,
    kForce = 1U << 3U,
    kYes = 1U << 4U,
    kDryRun = 1U << 5U,
    kAll = 1U << 6U,
    kPrefix = 1U << 7U,
    kCount = 1U << 8U,
    kTimeout = 1U << 9U,
    kLong = 1U << 10U,
    kDefault = 1U << 11U,
    kInitial = 1U << 12U,
    kExec = 1U << 13U,
    kWait = 1U << 14U,
    kChanged = 1U << 15U,
    kTellsResult = 1U << 16U // with --json (cli/output/result.h); no option
};

inline constexpr int kAnyNumber = -1;

struct Command {
    const char* name;     // one word; or two, then the first one gathers commands ("tree check")
    const char* operands; // one of them, as the usage line has it: "NAME"; empty: none
    const char* operand_help; // what they are
    int least;                // operands
    int most;                 // operands, or kAnyNumber
    std::uint32_t options;    // OptionBit
    const char* summary;      // a phrase without a full stop
    const char* details;      // whole sentences, shown below the options
    int (*run)(const Options& options);
};

std::span<const Command> commands();
// Runs it to its ExitStatus.
int run(const Command& command, const Options& options);

// The commands. Each returns an ExitStatus and has said on standard error what went wrong.
int runGet(const Options& options);
int runSet(const Options& options);
int runList(const Options& options);
int runSearch(const Options& options);
int runExists(const Options& options);
int runGroup(const Options& options);
int runWatch(const Options& options);
int runWait(const Options& options);
int runToggle(const Options& options);
int runAdd(const Options& options);
int runBatch(const Options& options);
int runDiff(const Options& options);
int runReset(const Options& options);
int runExport(const Options& options);
int runImport(const Options& options);
int runEdit(const Options& options);
int runInfo(const Options& options);
int runStatus(const Options& options);
int runTreeCheck(const Options& options);

} // namespace kelconf::cli
