#include "live/backup_pace.h"

#include <algorithm>

namespace kelconf {

void BackupPace::noteTaken(Moment now) {
    const bool quiet = next_ == Moment::min() || now - next_ >= kLongestPause;
    pause_ = quiet ? kShortestPause : std::min(2 * pause_, kLongestPause);
    next_ = now + pause_;
}

} // namespace kelconf
