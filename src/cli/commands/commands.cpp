#include "cli/commands/commands.h"

#include <array>

namespace kelconf::cli {

namespace {

constexpr std::array kCommands = {
    Command{
        "get", "NAME", "names of parameters", 1, kAnyNumber, kValuesOnly,
        "print the values of parameters",
        "Prints the names that are known, in the order asked for, also when others are unknown.",
        runGet},
    Command{"set", "NAME=VALUE", "what to set; NAME=- reads the value from standard input", 1,
            kAnyNumber, kDirect | kNoDb | kForce, "set parameters, all in one request",
            "All names and values are checked first: when one is refused, none is set.", runSet},
    Command{"list", "PREFIX", "beginning of the names; without it all", 0, 1, kValuesOnly,
            "print all parameters, or those whose names begin with PREFIX",
            "PREFIX is compared byte by byte: end it with a dot for one group alone.", runList},
    Command{"group", "NAME", "names of groups", 1, kAnyNumber, kValuesOnly,
            "print the parameters of groups, as the bus groups them",
            "Names are of one group when their first eight bytes agree; a shorter NAME is the\n"
            "parameter of exactly that name. For any other prefix there is list.",
            runGroup},
    Command{
        "watch", "PREFIX", "beginnings of the names; without it all", 0, kAnyNumber,
        kCount | kTimeout, "print each change as it comes, one a line",
        "Ends on Ctrl-C, or with --count or --timeout. Goes on after a restart of the service.\n"
        "The exit status is 3 when --timeout ends it before --count changes came.",
        runWatch},
    Command{
        "diff", "PREFIX", "beginning of the names; without it all", 0, 1, 0,
        "print the values that differ from their factory defaults",
        "Lines with - have the default, lines with + the live value. The exit status is 1 when\n"
        "there is a difference. Parameters without a default and realtime states are left out.",
        runDiff},
    Command{
        "reset", "NAME", "names of parameters", 0, kAnyNumber,
        kPrefix | kAll | kYes | kDryRun | kDirect | kNoDb,
        "set parameters back to their factory defaults",
        "Asks first; without a terminal --yes is needed. Realtime states are left out. When the\n"
        "answer is no, nothing is done and the exit status is 1.",
        runReset},
    Command{"export", "PREFIX", "beginning of the names; without it all", 0, 1, 0,
            "print parameters in the text form that import reads",
            "One NAME=VALUE a line, sorted by name, with escapes for line breaks and the like.\n"
            "Passwords are left out without --show-secrets; realtime states are always left out.",
            runExport},
    Command{"import", "FILE", "what export has printed; - is standard input", 1, 1,
            kDryRun | kForce | kDirect | kNoDb, "set the values of an export that differ",
            "All names and values are checked first: when one is refused, none is set. Values go\n"
            "out in requests of 200; a failure or Ctrl-C in between says how far it came.",
            runImport},
    Command{
        "info", "NAME", "names of parameters", 1, kAnyNumber, 0,
        "print value, default, type, range, step, options and access",
        "Access is that of the web pages. Without the service everything but the value is shown.",
        runInfo},
    Command{
        "status", "", "", 0, 0, 0, "tell whether the service and its files are in order",
        "Works without the service, too. The exit status is 3 without it, and 5 when a database\n"
        "or a sidecar is not in order.",
        runStatus},
    Command{
        "tree check", "FILE", "a parameter tree; - is standard input", 1, 1, 0,
        "tell the author of a parameter tree what is wrong with it",
        "Prints FILE:LINE: error, warning or note: TEXT for each finding, and how many parameters\n"
        "kelconf-init makes of the tree. Needs no service. The exit status is 0 without a finding\n"
        "or with notes only, 1 with errors or warnings, and 5 when FILE cannot be read.",
        runTreeCheck},
};

} // namespace

std::span<const Command> commands() {
    return kCommands;
}

} // namespace kelconf::cli
