// The service manager's watchdog (sd_notify's WATCHDOG=1), fed by what the watchdog is there for:
// an answered request.
//
// A thread asks the loops of GET and SET over their endpoints, as any client does, and tells the
// manager only when both have answered: a loop that is gone, a lock that nobody gives back or a
// stopped process ends the feeding, and the manager starts the service anew. The GET is one of a
// live name, the SET one of none. The listings are not asked: their answers grow with the
// parameters, each leaves a trace, and they wait for no lock that these two do not wait for.
//
// An answer may rightly take as long as a refused row is retried (db/update_retries.h): a manager
// is to wait for 30 seconds at least.
#pragma once

#include <chrono>

namespace kelconf {

// How long the manager waits before it takes this process for hung: WATCHDOG_USEC of the
// environment, unless WATCHDOG_PID names another process. Zero: nobody watches.
std::chrono::microseconds watchdogTime();

// Feeds the watchdog four times in each watchdogTime, first after a quarter of it. Returns when the
// bus context is shut down, or at once when nobody watches. Needs the bus context.
void feedWatchdog();

} // namespace kelconf
