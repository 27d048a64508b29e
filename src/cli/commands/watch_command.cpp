// watch: one line a change, until Ctrl-C, a number of changes or a time.

#include "catalog/secrets.h"
#include "cli/commands/commands.h"
#include "cli/output/listing.h"
#include "cli/output/output.h"
#include "cli/output/shown_text.h"
#include "cli/session/bus_session.h"
#include "text/text.h"

#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>

namespace kelconf::cli {

namespace {

using Clock = std::chrono::steady_clock;

struct CloseWatch {
    void operator()(kelbus_watch* watch) const noexcept { kelbus_watch_close(watch); }
};
using Watch = std::unique_ptr<kelbus_watch, CloseWatch>;

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int /*number*/) {
    interrupted = 1;
}

// SIGINT is held back except while waiting, so that none is missed and no line is cut. Returns the
// mask to wait with. Before any thread is started, which then leave the signal alone.
sigset_t holdInterrupt() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigset_t held;
    sigset_t waiting;
    sigemptyset(&held);
    sigaddset(&held, SIGINT);
    sigprocmask(SIG_BLOCK, &held, &waiting);
    sigdelset(&waiting, SIGINT);
    return waiting;
}

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
        addMember(object, "prev_value", jsonText(before));
        out(object + "}\n");
    } else if (options.null_ended) {
        out(time + " " + change.name + "=");
        out(value);
        out(std::string_view{"\0", 1});
    } else if (report.style.people) {
        out(inked(report.style, Ink::kFaint, time) + "  ");
        out(inked(report.style, Ink::kName, shownText(change.name)) + "  ");
        out(inked(report.style, Ink::kOld, shownText(before)) + " -> ");
        out(inked(report.style, Ink::kNew, shownText(value)) + "\n");
    } else {
        out(time + " " + shownText(change.name) + "=" + shownText(value) + "\n");
    }
}

// The time left as poll counts it, null for ever.
std::optional<timespec> timeLeft(const Options& options, Clock::time_point end) {
    if (options.watch_timeout <= 0) {
        return {};
    }
    const auto left = std::max(end - Clock::now(), Clock::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    return timespec{seconds.count(), (left - seconds).count()};
}

enum class Wake { kChanges, kEnd, kNoReader };

// Waits for changes; ends as well when a pipe behind standard output has lost its reader.
Wake awaitChanges(const Options& options, kelbus_watch* watch, const sigset_t& mask,
                  Clock::time_point end) {
    std::array<pollfd, 2> wanted{{{kelbus_watch_fd(watch), POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
    const auto left = timeLeft(options, end);
    const int ready = ppoll(wanted.data(), wanted.size(), left ? &*left : nullptr, &mask);
    if (interrupted != 0 || (ready < 0 && errno != EINTR)) {
        return Wake::kEnd;
    }
    if ((wanted[1].revents & POLLERR) != 0) {
        return Wake::kNoReader;
    }
    return ready == 0 ? Wake::kEnd : Wake::kChanges;
}

// Prints what has come, at most up to the wanted count.
int printPending(const Report& report, kelbus_watch* watch, std::uint64_t& seen) {
    kelbus_change change{};
    kelbus_error error = KELBUS_OK;
    while (error == KELBUS_OK && (report.options.count == 0 || seen < report.options.count)) {
        error = kelbus_watch_next(watch, &change, 0);
        if (error == KELBUS_OK) {
            printChange(report, change);
            ++seen;
        } else if (error == KELBUS_BROKEN_REPLY) {
            complain("something that is no event came, and is ignored");
            error = KELBUS_OK;
        }
    }
    if (!flushOutput()) {
        return kBroken; // said when the output is finished
    }
    if (error == KELBUS_OK || error == KELBUS_TIMEOUT) {
        return kDone;
    }
    complain(kelbus_strerror(error));
    return exitStatus(error);
}

int watchUntilEnd(const Report& report, kelbus_watch* watch, const sigset_t& mask) {
    const Options& options = report.options;
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>{options.watch_timeout});
    std::uint64_t seen = 0;
    for (;;) {
        if (int status = printPending(report, watch, seen); status != kDone) {
            return status;
        }
        if (options.count != 0 && seen == options.count) {
            return kDone;
        }
        switch (awaitChanges(options, watch, mask, end)) {
        case Wake::kChanges:
            break;
        case Wake::kNoReader:
            std::raise(SIGPIPE);
            return kBroken;
        case Wake::kEnd:
            if (options.count != 0 && interrupted == 0) {
                complain(std::to_string(seen) + " of " + std::to_string(options.count) +
                         " changes came in time");
                return kNoService;
            }
            return kDone;
        }
    }
}

// Watching goes on without a service, but not in silence.
void sayWhetherServed(const Options& options) {
    Bus bus;
    if (openBus(options, bus) != kDone) {
        return;
    }
    char* value = nullptr;
    const kelbus_error error = kelbus_get(bus.client.get(), "kelctl", &value, bus.limit);
    kelbus_free(value);
    if (error == KELBUS_NO_SERVICE || error == KELBUS_TIMEOUT) {
        complain("no service answers; waiting for one");
    } else if (onTerminal(STDERR_FILENO)) {
        complain("watching; Ctrl-C ends it");
    }
}

} // namespace

int runWatch(const Options& options) {
    const sigset_t mask = holdInterrupt();
    const std::vector<const char*> prefixes = cTexts(options.operands);
    kelbus_watch* raw = nullptr;
    const kelbus_error error = kelbus_watch_open(&raw, prefixes.data(), prefixes.size());
    const Watch watch{raw};
    if (error != KELBUS_OK) {
        complain(kelbus_strerror(error));
        return exitStatus(error);
    }
    const Report report{options, styleOf(options), Secrets{options.show_secrets}};
    sayWhetherServed(options);
    return watchUntilEnd(report, watch.get(), mask);
}

} // namespace kelconf::cli
