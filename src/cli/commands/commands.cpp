#include "cli/commands/commands.h"

#include "cli/output/result.h"

#include <array>

namespace kelconf::cli {

namespace {

constexpr std::array kCommands = {
    Command{
        "get", "NAME", "names of parameters", 1, kAnyNumber, kValuesOnly | kDefault,
        "print the values of parameters",
        "Prints the names that are known, in the order asked for, also when others are unknown.",
        runGet},
    Command{"set", "NAME=VALUE", "what to set; NAME=- reads the value from standard input", 1,
            kAnyNumber, kDirect | kNoDb | kForce | kTellsResult,
            "set parameters, all in one request",
            "All names and values are checked first: when one is refused, none is set.", runSet},
    Command{"toggle", "NAME", "a parameter with two values", 1, 1, kDirect | kNoDb | kTellsResult,
            "set a parameter to its other value",
            "Of 0 and 1, true and false, yes and no, on and off, or of the two words among its\n"
            "options. Somebody who sets it at the same moment is overwritten.",
            runToggle},
    Command{
        "add", "NAME N", "a parameter, and the number to add to it", 2, 2,
        kDirect | kNoDb | kForce | kTellsResult, "add a number to the value of a parameter",
        "N may be negative. The sum is checked against range and step as set does. Somebody who\n"
        "sets it at the same moment is overwritten.",
        runAdd},
    Command{
        "list", "PREFIX", "beginnings of the names, or patterns; without it all", 0, kAnyNumber,
        kValuesOnly | kLong, "print all parameters, or those whose names begin with PREFIX",
        "PREFIX is compared byte by byte: end it with a dot for one group alone. With *, ? or [\n"
        "it is a pattern of the whole name, as shells have it: quote it. *.port is every port.",
        runList},
    Command{
        "search", "WORD", "what to look for", 1, kAnyNumber, kValuesOnly | kLong,
        "print the parameters that have WORD in their name, value or options",
        "Letter case does not count. Of several words each must be found. The values of secrets\n"
        "are not searched. The exit status is 1 when nothing is found.",
        runSearch},
    Command{"exists", "NAME", "names of parameters", 1, kAnyNumber, kTellsResult,
            "tell by the exit status whether all names are known",
            "Prints nothing: 0 when the service knows them all, else 1.", runExists},
    Command{"group", "NAME", "names of groups", 1, kAnyNumber, kValuesOnly,
            "print the parameters of groups, as the bus groups them",
            "Names are of one group when their first eight bytes agree; a shorter NAME is the\n"
            "parameter of exactly that name. For any other prefix there is list.",
            runGroup},
    Command{
        "watch", "PREFIX", "beginnings of the names, or patterns; without it all", 0, kAnyNumber,
        kCount | kTimeout | kInitial | kExec, "print each change as it comes, one a line",
        "Ends on Ctrl-C, or with --count or --timeout. Goes on after a restart of the service, "
        "and\n"
        "says on standard error that changes may have been missed; with --initial the values then\n"
        "come again. The exit status is 3 when --timeout ends it before --count changes came.\n"
        "--exec: the command has the change in KELCTL_NAME, KELCTL_VALUE and, but for a first\n"
        "value, KELCTL_PREV_VALUE. One that fails is reported, one that hangs holds the others up.",
        runWatch},
    Command{
        "wait", "NAME=VALUE", "the values to wait for", 1, kAnyNumber, kTimeout | kTellsResult,
        "wait until parameters have the given values",
        "Ends when all of them hold, also when they do already. Waits for the service, too. The\n"
        "exit status is 3 when --timeout ends it before.",
        runWait},
    Command{
        "diff", "PREFIX", "beginnings of the names, or patterns; without it all", 0, kAnyNumber, 0,
        "print the values that differ from their factory defaults",
        "A word with a slash, or -, is a file that export has printed: shown is then what import\n"
        "would change. Lines with - have the default, lines with + the live value. The exit status "
        "is 1 when\n"
        "there is a difference. Parameters without a default and realtime states are left out.",
        runDiff},
    Command{
        "reset", "NAME", "names of parameters", 0, kAnyNumber,
        kPrefix | kAll | kYes | kDryRun | kDirect | kNoDb | kTellsResult,
        "set parameters back to their factory defaults",
        "Asks first; without a terminal --yes is needed. Realtime states are left out. When the\n"
        "answer is no, nothing is done and the exit status is 1.",
        runReset},
    Command{
        "export", "PREFIX", "beginnings of the names, or patterns; without it all", 0, kAnyNumber,
        kChanged, "print parameters in the text form that import reads",
        "One NAME=VALUE a line, sorted by name, with escapes for line breaks and the like; with\n"
        "--json one object of names and values. Passwords are left out without --show-secrets;\n"
        "realtime states are always left out.",
        runExport},
    Command{
        "edit", "PREFIX", "beginnings of the names, or patterns; without it all", 0, kAnyNumber,
        kChanged | kForce | kYes | kDirect | kNoDb | kTellsResult, "change parameters in an editor",
        "What export prints comes into $VISUAL, $EDITOR or vi; what was changed there is shown "
        "and,\n"
        "after a yes, set. A line that is taken out changes nothing. When something is refused or\n"
        "the answer is no, what was edited is kept, and it is said where.",
        runEdit},
    Command{"import", "FILE", "what export has printed; - is standard input", 1, kAnyNumber,
            kDryRun | kForce | kDirect | kNoDb | kTellsResult,
            "set the values of an export that differ",
            "All names and values are checked first: when one is refused, none is set. Values go\n"
            "out in requests of 200; a failure or Ctrl-C in between says how far it came. Of a "
            "name that\n"
            "stands in several files the last value counts.",
            runImport},
    Command{
        "info", "NAME", "names of parameters", 1, kAnyNumber, 0,
        "print value, default, type, range, step, options and access",
        "Access is that of the web pages. Without the service everything but the value is shown.",
        runInfo},
    Command{
        "status", "", "", 0, 0, kWait, "tell whether the service and its files are in order",
        "Works without the service, too. The exit status is 3 without it, 5 when a database or a\n"
        "sidecar is not in order, and 6 when both is so and a file is more than missing.",
        runStatus},
    Command{
        "batch", "", "", 0, 0, 0, "run commands from standard input, in one process",
        "One command a line, as behind kelctl; quotes and backslashes as in a shell, # begins a\n"
        "comment. Goes on after a command that fails; the exit status is that of the first one.",
        runBatch},
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

int run(const Command& command, const Options& options) {
    beginResult();
    const int status = command.run(options);
    if (options.json && !options.dry_run && (command.options & kTellsResult) != 0) {
        printResult(options, command.name, status);
    }
    return status;
}

} // namespace kelconf::cli
