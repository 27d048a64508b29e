// The ZeroMQ context of the process's clients and watches.
//
// All share one, so that a thousand watches take no thousand threads. It lives as long as somebody
// uses it. Any thread.
#pragma once

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

  private:
    void* context_;
};

} // namespace kelconf
