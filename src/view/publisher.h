// The writing side of the view (view/layout.h shows the file). One thread at a time.
#pragma once

#include "base/aligned.h"
#include "base/fd.h"
#include "view/layout.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace kelconf::view {

struct Item {
    std::string_view name;
    std::string_view value;
    bool secret; // its value never reaches the file
};

// What lies at `path` says from now on that its service is gone, and loses its name. For what an
// earlier run left behind: without it a reader could take it for alive for a moment.
void retire(const char* path);

class Publisher {
  public:
    // Writes a file of these items, which ascend by name, under the name `path`; it is complete
    // before it gets it. `earlier` is the sequence of the one that it replaces. Mode 0640 but for
    // the umask. Nothing, and errno, when there is no room or no right; nothing then lies there
    // that was not there before.
    static std::optional<Publisher> publish(const char* path, const std::vector<Item>& items,
                                            std::uint64_t earlier = 0);

    Publisher(Publisher&& other) noexcept;
    Publisher& operator=(Publisher&& other) noexcept;
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;
    ~Publisher();

    // Between these two readers wait. What is set in between becomes visible together.
    void begin();
    void end();
    // False when the value has no room left: the file is to be replaced.
    bool set(std::string_view name, std::string_view value);

    // Between begin and end, in place of the latter: this file is of no use any more, by a newer
    // one at its path or for good.
    void leave(State state);

    [[nodiscard]] std::uint64_t sequence() const;

  private:
    Publisher(Fd file, std::byte* base, std::size_t size);
    void fill(const std::vector<Item>& items);
    void write(std::uint32_t at, std::string_view value);
    bool find(std::string_view name, std::uint32_t& number) const;

    [[nodiscard]] Header& header() const { return *alignedCast<Header>(base_); }
    [[nodiscard]] Entry& entry(std::uint32_t number) const {
        return alignedCast<Entry>(base_ + header().entries_at)[number];
    }

    Fd file_; // holds the lock
    std::byte* base_ = nullptr;
    std::size_t size_ = 0;
    std::uint32_t free_at_ = 0;       // behind the last value's room
    std::vector<std::uint32_t> room_; // of each entry's value, bytes
    std::vector<bool> secret_;
};

} // namespace kelconf::view
