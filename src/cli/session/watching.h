// What the commands that wait for changes share: the watch, its end, and Ctrl-C.
#pragma once

#include "cli/options.h"
#include "cli/session/bus_session.h"

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

namespace kelconf::cli {

struct CloseWatch {
    void operator()(kelbus_watch* watch) const noexcept { kelbus_watch_close(watch); }
};
using Watch = std::unique_ptr<kelbus_watch, CloseWatch>;

// Holds SIGINT back except while waiting, so that none is missed and no line is cut. Made before
// any thread is started, which then leaves the signal alone. Ends when its time limit is over: that
// of
// --timeout, from the making on.
class Waiting {
  public:
    explicit Waiting(const Options& options);

    enum class Wake { kReady, kTimeOver, kInterrupted, kNoReader };
    // Waits until the descriptor is readable, or, as kReady too, for as long as `most`; kNoReader
    // when a pipe behind standard output has lost its reader.
    [[nodiscard]] Wake await(int descriptor, std::chrono::milliseconds most = kEver) const;

  private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kEver{1'000'000'000'000};
    bool limited_;
    Clock::time_point end_;
    sigset_t mask_{};
};

// kDone, or the failure, said. `options`: KELBUS_WATCH_... of kelbus.h.
int openWatch(const std::vector<std::string>& prefixes, unsigned options, Watch& watch);

// What kelbus_watch_next came back with, when that was neither a change nor nothing: kDone, said,
// for what may be passed over, else the exit status, said.
int saidWatchFailure(kelbus_error error);

// Watching goes on without a service, but not in silence. A service that hangs holds up nobody: the
// question is given up when the wait ends, which is then the result.
Waiting::Wake sayWhetherServed(const Options& options, const Waiting& waiting);

} // namespace kelconf::cli
