#include "cli/session/watching.h"

#include "cli/output/output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>

namespace kelconf::cli {

namespace {

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int /*number*/) {
    interrupted = 1;
}

} // namespace

Waiting::Waiting(const Options& options)
    : limited_(options.watch_timeout > 0),
      end_(Clock::now() + std::chrono::duration_cast<Clock::duration>(
                              std::chrono::duration<double>{options.watch_timeout})) {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGINT);
    sigprocmask(SIG_BLOCK, &held, &mask_);
    sigdelset(&mask_, SIGINT);
}

Waiting::Wake Waiting::await(int descriptor, std::chrono::milliseconds most) const {
    std::array<pollfd, 2> wanted{{{descriptor, POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
    Clock::duration time = most;
    if (limited_) {
        time = std::min(time, std::max(end_ - Clock::now(), Clock::duration::zero()));
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    const std::chrono::duration<long, std::nano> rest = time - seconds;
    const timespec left{seconds.count(), rest.count()};
    const int ready = ppoll(wanted.data(), wanted.size(), &left, &mask_);
    if (interrupted != 0) {
        return Wake::kInterrupted;
    }
    if ((wanted[1].revents & POLLERR) != 0) {
        return Wake::kNoReader;
    }
    const bool over = limited_ && ready == 0 && Clock::now() >= end_;
    return over ? Wake::kTimeOver : Wake::kReady;
}

int openWatch(const std::vector<std::string>& prefixes, unsigned options, Watch& watch) {
    const std::vector<const char*> texts = cTexts(prefixes);
    kelbus_watch* raw = nullptr;
    const kelbus_error error = kelbus_watch_open_with(&raw, texts.data(), texts.size(), options);
    watch.reset(raw);
    return error == KELBUS_OK ? kDone : saidWatchFailure(error);
}

int saidWatchFailure(kelbus_error error) {
    if (error == KELBUS_BROKEN_REPLY) {
        complain("something that is no event came, and is ignored");
        return kDone;
    }
    complain(kelbus_strerror(error));
    return exitStatus(error);
}

Waiting::Wake sayWhetherServed(const Options& options, const Waiting& waiting) {
    using Wake = Waiting::Wake;
    Bus bus;
    if (openBus(options, bus) != kDone) {
        return Wake::kReady;
    }
    const char* name = "kelctl";
    kelbus_request* request = nullptr;
    kelbus_error error = kelbus_start_get(bus.client.get(), &name, 1, &request);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds{bus.limit};
    while (request != nullptr) {
        error = kelbus_request_finish(request, nullptr, 0);
        if (error != KELBUS_TIMEOUT) {
            break; // which has released it
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        const Wake wake =
            left.count() > 0 ? waiting.await(kelbus_request_fd(request), left) : Wake::kReady;
        if (wake != Wake::kReady || left.count() <= 0) {
            kelbus_request_cancel(request);
            request = nullptr;
        }
        if (wake != Wake::kReady) {
            return wake;
        }
    }
    if (error == KELBUS_NO_SERVICE || error == KELBUS_TIMEOUT) {
        complain("no service answers; waiting for one");
    } else if (onTerminal(STDERR_FILENO)) {
        complain("watching; Ctrl-C ends it");
    }
    return Wake::kReady;
}

} // namespace kelconf::cli
