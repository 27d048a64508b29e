// The reading side of the view (view/layout.h shows the file).
//
// Any number of threads may use one reader, and a child of fork may go on with its parent's. A read
// makes no system call, but for one in some 20 ms that asks whether the service lives. The service
// is found again by itself after a restart.
#pragma once

#include "view/mapping.h"

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::view {

// A value among the texts of getMany, ended by a zero byte.
struct Place {
    std::size_t at = 0;
    bool known = false;
};

// Told of a name and its value; null where it is not in the view. False ends the visit.
using Visitor = std::function<bool(const char* name, const char* value, std::size_t length)>;

class Reader {
  public:
    explicit Reader(const char* path) : path_(path) {}
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    Reader(Reader&&) = delete;
    Reader& operator=(Reader&&) = delete;

    // The value and a zero byte. `length`, without that byte, is also given with kTooSmall.
    Outcome get(std::string_view name, char* buffer, std::size_t size, std::size_t& length);
    // All values as they are at one moment. kNotInView, with no values, when one of them is not.
    Outcome getMany(std::span<const std::string_view> names, std::string& texts,
                    std::vector<Place>& places);
    // All names that begin so, ascending; each value as it is when its turn comes. Throws what the
    // visitor throws.
    Outcome visit(std::string_view prefix, const Visitor& visitor);
    // Another number after each change and each start of the service. 0: no service.
    std::uint64_t changes();

  private:
    class Use;
    template <typename Read>
    Outcome read(Read body);
    Outcome attach(Use& use);
    Outcome reopen(const Mapping* stale, bool moved);
    void replace(Mapping* fresh);
    void collect();
    bool takeTurn();

    const char* path_;
    std::atomic<Mapping*> current_{nullptr};
    std::atomic<std::uint32_t> reading_{0}; // threads that may use a mapping
    // The process that opens or closes a mapping, 0 for none. A child of fork takes the turn from
    // its parent's thread, which is not there to give it back. (What such a thread was reading
    // stays mapped in the child.)
    std::atomic<pid_t> turn_{0};
    Mapping* dropped_ = nullptr; // a chain of those that may still be used; by whose turn it is
    std::atomic<std::int64_t> next_look_{0};
    std::atomic<Outcome> last_look_{Outcome::kNoService};
};

} // namespace kelconf::view
