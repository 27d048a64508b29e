// Measuring rivals in turn, so that what disturbs one of them disturbs the others too.
#pragma once

#include "median.h"
#include "servers.h"

#include <functional>
#include <vector>

namespace bench {

struct Rival {
    const Server* server; // whose processor time counts; null: none
    std::function<void()> once;
    std::vector<double> times{};      // microseconds of one run of `once`, a mean for each turn
    std::vector<double> processors{}; // microseconds of the server's processor time in it
};

// Each turn runs every rival `repeats` times, first one, then the next. The turns begin with
// different ones and go around in both directions: each rival follows each of the others.
void playTurns(std::vector<Rival>& rivals, int turns, int repeats);

// The median of the ratios within each turn.
double medianRatio(const std::vector<double>& measured, const std::vector<double>& against);

// Seconds of a clock that only runs forward.
double now();

} // namespace bench
