#include "turns.h"

#include <chrono>

namespace bench {

namespace {

void play(Rival& rival, int repeats) {
    const double processor = rival.server == nullptr ? 0 : rival.server->processorTime();
    const double start = now();
    for (int i = 0; i < repeats; ++i) {
        rival.once();
    }
    rival.times.push_back((now() - start) * 1e6 / repeats);
    if (rival.server != nullptr) {
        rival.processors.push_back((rival.server->processorTime() - processor) * 1e6 / repeats);
    }
}

} // namespace

void playTurns(std::vector<Rival>& rivals, int turns, int repeats) {
    const std::size_t count = rivals.size();
    for (int turn = 0; turn < turns; ++turn) {
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t place = (i + static_cast<std::size_t>(turn / 2)) % count;
            play(rivals[turn % 2 == 0 ? place : count - 1 - place], repeats);
        }
    }
}

double medianRatio(const std::vector<double>& measured, const std::vector<double>& against) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < measured.size() && i < against.size(); ++i) {
        ratios.push_back(measured[i] / against[i]);
    }
    return ratios.empty() ? 0 : median(ratios);
}

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace bench
