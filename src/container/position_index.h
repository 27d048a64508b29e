// PositionIndex: position -> element record for one list, in constant time.
//
// The record pointers lie one behind the other in an array with room at both ends. A change
// moves the pointers on the nearer side of it, so that adding and taking at either end is O(1)
// amortised.
//
// A lookup changes nothing: any number of threads may look up while nobody changes the list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace kelconf {

struct simlist_element;

struct PositionIndex {
    std::unique_ptr<simlist_element*[]> slots;
    std::size_t size = 0;  // slots
    std::size_t first = 0; // slot of position 0
    std::size_t count = 0;
};

// The record at `position`, which is below count.
inline simlist_element* positionIndexAt(const PositionIndex& index, std::uint32_t position) {
    return index.slots[index.first + position];
}

// Makes `record` the one at `position` (at most count). False when memory is short, with the
// index unchanged.
bool positionIndexInsert(PositionIndex& index, std::uint32_t position, simlist_element* record);
// Takes out `length` records from `start`; start + length is at most count.
void positionIndexRemove(PositionIndex& index, std::uint32_t start, std::uint32_t length);
// Empties the index; a small array stays for the next filling.
void positionIndexClear(PositionIndex& index);

} // namespace kelconf
