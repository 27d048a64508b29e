// The ZeroMQ context of the process's clients and watches.
//
// All share one, so that a thousand watches take no thousand threads. It lives as long as somebody
// uses it. Any thread.
#pragma once

#include "bus/zmq_handle.h"

namespace kelconf {

// A use of the context, from construction to destruction.
class ContextUse {
  public:
    ContextUse();
    ~ContextUse();
    ContextUse(const ContextUse&) = delete;
    ContextUse& operator=(const ContextUse&) = delete;
    ContextUse(ContextUse&&) = delete;
    ContextUse& operator=(ContextUse&&) = delete;

    // Null when there is no memory or descriptor for it.
    [[nodiscard]] void* get() const { return context_; }

    // A socket, for a connection that is about to be made and is watched (openEvents). Empty, with
    // errno set, when this process lacks a descriptor, a thread or memory for all of that: libzmq
    // would end it half-way.
    [[nodiscard]] Socket socket(int type) const;

  private:
    void* context_;
};

} // namespace kelconf
