// watch: one line a change, until Ctrl-C, a number of changes or a time. wait: until values are as
// wanted.

#include "catalog/secrets.h"
#include "cli/commands/commands.h"
#include "cli/output/listing.h"
#include "cli/output/output.h"
#include "cli/output/shown_text.h"
#include "cli/session/patterns.h"
#include "cli/session/watching.h"
#include "paths.h"
#include "text/text.h"

#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>

namespace kelconf::cli {

namespace {

// Local time to the millisecond, "2024-05-31 13:05:09.042".
std::string timeNow() {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm parts{};
    localtime_r(&now.tv_sec, &parts);
    std::array<char, 40> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    std::snprintf(text.data() + length, text.size() - length, ".%03d",
                  static_cast<int>(now.tv_usec / 1000));
    return text.data();
}

struct Report {
    const Options& options;
    Style style;
    Secrets secrets;
};

// A value keeps to its line in every form but -0, where it stands as it is.
void printChange(const Report& report, const kelbus_change& change) {
    const Options& options = report.options;
    const std::string time = timeNow();
    const std::string_view value = report.secrets.shown(change.name, viewOf(change.value));
    const std::string_view before = report.secrets.shown(change.name, viewOf(change.prev_value));
    if (options.json) {
        std::string object = "{";
        addMember(object, "time", jsonText(time));
        addMember(object, "name", jsonText(change.name));
        addMember(object, "value", jsonText(value));
        addMember(object, "prev_value", change.prev_value == nullptr ? "null" : jsonText(before));
        out(object + "}\n");
    } else if (options.null_ended) {
        out(time + " " + change.name + "=");
        out(value);
        out(std::string_view{"\0", 1});
    } else if (report.style.people) {
        out(inked(report.style, Ink::kFaint, time) + "  ");
        out(inked(report.style, Ink::kName, shownText(change.name)) + "  ");
        out(change.prev_value == nullptr
                ? ""
                : inked(report.style, Ink::kOld, shownText(before)) + " -> ");
        out(inked(report.style, Ink::kNew, shownText(value)) + "\n");
    } else {
        out(time + " " + shownText(change.name) + "=" + shownText(value) + "\n");
    }
}

// What a command that is run for a change finds in its environment.
void exportChange(const kelbus_change& change) {
    setenv("KELCTL_NAME", change.name, 1);
    setenv("KELCTL_VALUE", change.value == nullptr ? "" : change.value, 1);
    if (change.prev_value == nullptr) {
        unsetenv("KELCTL_PREV_VALUE");
    } else {
        setenv("KELCTL_PREV_VALUE", change.prev_value, 1);
    }
}

// Runs the command in a shell and waits for its end. Nothing of the change becomes text of it.
void runFor(const std::string& command, const kelbus_change& change) {
    if (!flushOutput()) {
        return;
    }
    exportChange(change);
    const pid_t child = fork();
    if (child == 0) {
        sigset_t none;
        sigemptyset(&none);
        std::signal(SIGINT, SIG_DFL);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execl(paths::kShell, "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(errno == E2BIG ? 126 : 127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) < 0) {
        complain(std::string{"cannot run the command: "} + std::strerror(errno));
    } else if (status != 0) {
        const std::string end = WIFEXITED(status)
                                    ? "with status " + std::to_string(WEXITSTATUS(status))
                                    : "by signal " + std::to_string(WTERMSIG(status));
        complain("the command for " + std::string{change.name} + " ended " + end);
    }
}

void tellChange(const Report& report, Patterns& patterns, const kelbus_change& change,
                std::uint64_t& seen) {
    if (change.name == nullptr) {
        complain("the service was away and is back; changes may have been missed");
    } else if (patterns.match(change.name)) {
        report.options.command.empty() ? printChange(report, change)
                                       : runFor(report.options.command, change);
        ++seen;
    }
}

// Tells what has come, at most up to the wanted count.
int tellPending(const Report& report, kelbus_watch* watch, Patterns& patterns,
                std::uint64_t& seen) {
    kelbus_change change{};
    kelbus_error error = KELBUS_OK;
    while (error != KELBUS_TIMEOUT && (report.options.count == 0 || seen < report.options.count)) {
        error = kelbus_watch_next(watch, &change, 0);
        if (error == KELBUS_OK) {
            tellChange(report, patterns, change, seen);
        } else if (error != KELBUS_TIMEOUT) {
            if (int status = saidWatchFailure(error); status != kDone) {
                return status;
            }
        }
    }
    return flushOutput() ? kDone : kBroken; // said when the output is finished
}

// The exit status when it ended before the wanted count.
int endOf(const Options& options, Waiting::Wake wake, std::uint64_t seen) {
    if (wake == Waiting::Wake::kNoReader) {
        std::raise(SIGPIPE);
        return kBroken;
    }
    if (options.count != 0 && wake == Waiting::Wake::kTimeOver) {
        complain(std::to_string(seen) + " of " + std::to_string(options.count) +
                 " changes came in time");
        return kNoService;
    }
    return kDone;
}

} // namespace

int runWatch(const Options& options) {
    const Waiting waiting{options};
    Patterns patterns{options.operands};
    Watch watch;
    unsigned wanted = KELBUS_WATCH_GAPS;
    if (options.initial) {
        wanted |= KELBUS_WATCH_VALUES;
    }
    if (int status = openWatch(patterns.beginnings(), wanted, watch); status != kDone) {
        return status;
    }
    const Report report{options, styleOf(options), Secrets{options.show_secrets}};
    std::uint64_t seen = 0;
    Waiting::Wake wake = sayWhetherServed(options, waiting);
    while (wake == Waiting::Wake::kReady) {
        if (int status = tellPending(report, watch.get(), patterns, seen); status != kDone) {
            return status;
        }
        if (options.count != 0 && seen >= options.count) {
            return kDone;
        }
        wake = waiting.await(kelbus_watch_fd(watch.get()));
    }
    return endOf(options, wake, seen);
}

int runWait(const Options& options) {
    std::map<std::string, std::pair<std::string, bool>> wanted;
    std::vector<std::string> names;
    for (const std::string& operand : options.operands) {
        const std::size_t equals = operand.find('=');
        if (equals == std::string::npos || equals == 0) {
            complain("\"" + operand + "\" is not NAME=VALUE");
            return kUsage;
        }
        names.push_back(operand.substr(0, equals));
        wanted[names.back()] = {operand.substr(equals + 1), false};
    }
    const Waiting waiting{options};
    Watch watch;
    if (int status = openWatch(names, KELBUS_WATCH_GAPS | KELBUS_WATCH_VALUES, watch);
        status != kDone) {
        return status;
    }
    Waiting::Wake wake = Waiting::Wake::kReady;
    const auto holds = [](const auto& each) { return each.second.second; };
    while (wake == Waiting::Wake::kReady) {
        kelbus_change change{};
        const kelbus_error error = kelbus_watch_next(watch.get(), &change, 0);
        if (error == KELBUS_TIMEOUT) {
            wake = waiting.await(kelbus_watch_fd(watch.get()));
        } else if (error != KELBUS_OK) {
            if (int status = saidWatchFailure(error); status != kDone) {
                return status;
            }
        } else if (change.name != nullptr) {
            const auto entry = wanted.find(change.name);
            if (entry != wanted.end()) {
                entry->second.second = entry->second.first == viewOf(change.value);
            }
            if (std::all_of(wanted.begin(), wanted.end(), holds)) {
                return kDone;
            }
        }
    }
    if (wake == Waiting::Wake::kInterrupted) {
        return kInterrupted;
    }
    for (const auto& [name, value] : wanted) {
        if (!value.second) {
            complain(name + " did not become the value in time");
        }
    }
    return kNoService;
}

} // namespace kelconf::cli
