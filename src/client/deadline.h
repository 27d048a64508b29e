// The time limit of a call.
#pragma once

#include <algorithm>
#include <chrono>
#include <limits>

namespace kelconf {

class Deadline {
  public:
    // Milliseconds from now; negative: none.
    explicit Deadline(int timeout_ms)
        : bounded_(timeout_ms >= 0), end_(Clock::now() + std::chrono::milliseconds{timeout_ms}) {}

    [[nodiscard]] bool over() const { return bounded_ && Clock::now() >= end_; }

    // Milliseconds left, rounded up, at most `most`.
    [[nodiscard]] int left(int most = std::numeric_limits<int>::max()) const {
        if (!bounded_) {
            return most;
        }
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
        return static_cast<int>(std::clamp<decltype(rest)>(rest, 0, most));
    }

    // The same in the form of ZeroMQ and poll: -1 for no limit.
    [[nodiscard]] int leftOrForever() const { return bounded_ ? left() : -1; }

  private:
    using Clock = std::chrono::steady_clock;
    bool bounded_;
    Clock::time_point end_;
};

} // namespace kelconf
