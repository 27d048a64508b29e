// The yardstick for insertion and removal: the same doubly linked list without an index. A
// position is reached on foot from the nearest of head, middle and tail, at most a quarter of
// the list away. It stands in a source of its own, so that its calls cost what the list's do.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kelconf::bench {

struct WalkElement {
    void* data = nullptr;
    WalkElement* next = nullptr;
    WalkElement* prev = nullptr;
};

class WalkList {
  public:
    WalkList();
    ~WalkList();
    WalkList(const WalkList&) = delete;
    WalkList& operator=(const WalkList&) = delete;
    WalkList(WalkList&&) = delete;
    WalkList& operator=(WalkList&&) = delete;

    void insert(std::int32_t position, void* data);
    void remove(std::int32_t position);

  private:
    WalkElement* at(std::int32_t position);

    WalkElement head_;
    WalkElement tail_;
    WalkElement* middle_ = nullptr;
    std::uint32_t count_ = 0;
    std::array<WalkElement*, 5> spares_{};
    std::size_t spare_count_ = 0;
};

} // namespace kelconf::bench
