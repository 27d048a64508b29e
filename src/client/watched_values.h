// The values that a watch hands out before the changes: one answer of the service, read without
// waiting.
#pragma once

#include "base/fd.h"
#include "kelbus.h"

#include <cstddef>
#include <memory>

namespace kelconf {

class WatchedValues {
  public:
    // Begins to read all values; what is in hand is dropped. `poller`, an epoll descriptor that
    // outlives this, is told of the answer. KELBUS_OK also when the service has just ended.
    kelbus_error fetch(const Fd& poller);

    // Takes the answer when it is there. An error ends the reading, and the next call of this
    // begins it anew; the end of the service is none.
    kelbus_error advance();

    // The answer is on its way: nothing else may be handed out yet.
    [[nodiscard]] bool pending() const { return request_ != nullptr; }

    // The next value in hand, null when there is none. Valid until the next call.
    const kelbus_parameter* take();

  private:
    struct Release {
        void operator()(kelbus* client) const noexcept { kelbus_close(client); }
        void operator()(kelbus_request* request) const noexcept { kelbus_request_cancel(request); }
        void operator()(kelbus_values* values) const noexcept { kelbus_values_free(values); }
    };

    kelbus_error begin();

    int poller_ = -1;
    bool missing_ = false; // to be begun anew
    std::unique_ptr<kelbus, Release> client_;
    std::unique_ptr<kelbus_request, Release> request_; // ended before its client
    std::unique_ptr<kelbus_values, Release> values_;
    std::size_t next_ = 0; // position in the values
};

} // namespace kelconf
