// Failed log-ins slow down: from the fifth in a row of an address, and from the tenth of an
// account, the next attempt has to wait, each time twice as long, up to five minutes and half a
// minute.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace kelconf::web {

// Any thread.
class Throttle {
  public:
    // How many seconds this attempt has to wait; 0: it may be made, and counts as failed until
    // succeeded() says otherwise, so that many at once are no way round.
    int attempt(std::string_view address, std::string_view account);
    void succeeded(std::string_view address, std::string_view account);

  private:
    using Time = std::chrono::steady_clock::time_point;
    struct Failures {
        int count = 0;
        Time until; // nothing before
        Time last;
    };
    Failures& of(const std::string& key);

    std::mutex mutex_;
    std::map<std::string, Failures> failures_;
};

} // namespace kelconf::web
