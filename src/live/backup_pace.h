// When the next backup may be taken, so that a value that changes all day does not rewrite the
// backup all day: the first change after a quiet time is backed up at the next round of the upkeep,
// and from backup to backup the pause doubles, from kShortestPause to kLongestPause. Once nothing
// was to be backed up for kLongestPause longer than the pause, it begins anew. One thread.
#pragma once

#include <chrono>

namespace kelconf {

inline constexpr std::chrono::seconds kShortestPause{5};
inline constexpr std::chrono::seconds kLongestPause{300};

class BackupPace {
  public:
    using Moment = std::chrono::steady_clock::time_point;

    [[nodiscard]] bool due(Moment now) const { return now >= next_; }
    void noteTaken(Moment now);

  private:
    Moment next_ = Moment::min();
    std::chrono::seconds pause_ = kShortestPause;
};

} // namespace kelconf
