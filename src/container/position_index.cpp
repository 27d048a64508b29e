#include "container/position_index.h"

#include <algorithm>
#include <new>
#include <utility>

namespace kelconf {

namespace {

constexpr std::size_t kFirstSlots = 8;
// Slots that an emptied index keeps: 4 KiB of pointers.
constexpr std::size_t kMostKept = 512;

// Puts the records into the middle of the array, or of one twice as large when this is more than
// three quarters full: an eighth of the slots or more is then free at either end.
bool makeRoom(PositionIndex& index) {
    simlist_element** from = index.slots.get() + index.first;
    if (index.count * 4 > index.size * 3 || index.size == 0) {
        const std::size_t size = std::max(index.size * 2, kFirstSlots);
        std::unique_ptr<simlist_element* []> slots { new (std::nothrow) simlist_element*[size] };
        if (!slots) {
            return false;
        }
        std::copy_n(from, index.count, slots.get() + (size - index.count) / 2);
        index.slots = std::move(slots);
        index.size = size;
    } else {
        simlist_element** to = index.slots.get() + (index.size - index.count) / 2;
        if (to < from) {
            std::copy_n(from, index.count, to);
        } else {
            std::copy_backward(from, from + index.count, to + index.count);
        }
    }
    index.first = (index.size - index.count) / 2;
    return true;
}

} // namespace

bool positionIndexInsert(PositionIndex& index, std::uint32_t position, simlist_element* record) {
    const bool before = position < index.count / 2;
    const bool full = before ? index.first == 0 : index.first + index.count == index.size;
    if (full && !makeRoom(index)) {
        return false;
    }
    simlist_element** begin = index.slots.get() + index.first;
    if (before) {
        std::copy(begin, begin + position, begin - 1);
        --index.first;
    } else {
        std::copy_backward(begin + position, begin + index.count, begin + index.count + 1);
    }
    ++index.count;
    index.slots[index.first + position] = record;
    return true;
}

void positionIndexRemove(PositionIndex& index, std::uint32_t start, std::uint32_t length) {
    simlist_element** begin = index.slots.get() + index.first;
    if (start < index.count - start - length) {
        std::copy_backward(begin, begin + start, begin + start + length);
        index.first += length;
    } else {
        std::copy(begin + start + length, begin + index.count, begin + start);
    }
    index.count -= length;
}

void positionIndexClear(PositionIndex& index) {
    if (index.size > kMostKept) {
        index = {};
    }
    index.count = 0;
    index.first = index.size / 2;
}

} // namespace kelconf
