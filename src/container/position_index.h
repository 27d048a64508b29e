// PositionIndex: position -> element record for one list, in constant time.
//
// A tiered vector. The record pointers lie in blocks of kBlockSlots, each block a circular
// buffer, the blocks themselves in a circular directory. Every block is full but the first,
// which may miss slots at its front, and the last, which may miss slots at its end. So
//  - a lookup is two shifts and two loads;
//  - adding or taking at either end is O(1) amortised;
//  - a change in the middle moves at most one block's pointers and then one pointer for each
//    block towards the nearer end (n = 100,000: at most 100 blocks).
// A list of fewer than kBlockSlots elements has one block of the next power of two, so the
// short lists of requests stay small.
//
// A lookup changes nothing: any number of threads may look up while nobody changes the list.
// The functions that take memory return false when it is short, with the index unchanged.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace kelconf {

struct simlist_element;

inline constexpr std::uint32_t kBlockShift = 9;
inline constexpr std::uint32_t kBlockSlots = 1U << kBlockShift;
inline constexpr std::uint32_t kFirstBlockSlots = 8;

using RecordSlots = std::unique_ptr<simlist_element*[]>;

struct IndexBlock {
    RecordSlots slots;
    std::uint32_t start = 0; // physical slot of the logical offset 0
};

struct PositionIndex {
    std::uint32_t count = 0;
    std::uint32_t front = 0;     // unused logical offsets before position 0, below kBlockSlots
    std::uint32_t slot_mask = 0; // slots of a block - 1: the same for all blocks
    std::uint32_t block_count = 0;
    std::uint32_t first_block = 0;    // directory entry of block 0
    std::uint32_t directory_mask = 0; // directory entries - 1; meaningless while there are none
    std::unique_ptr<IndexBlock[]> directory;
    // Emptied whole blocks, kept so that a list that swings around a block's edge at both ends
    // does not allocate.
    std::array<RecordSlots, 2> spare_blocks;
};

// The slot of a logical offset counted from the start of block 0.
inline simlist_element*& positionIndexSlot(const PositionIndex& index, std::uint32_t offset) {
    const IndexBlock& block =
        index.directory[(index.first_block + (offset >> kBlockShift)) & index.directory_mask];
    return block.slots[(block.start + (offset & (kBlockSlots - 1))) & index.slot_mask];
}

// The record at `position`, which is below count.
inline simlist_element* positionIndexAt(const PositionIndex& index, std::uint32_t position) {
    return positionIndexSlot(index, position + index.front);
}

// Makes `record` the one at `position` (at most count).
bool positionIndexInsert(PositionIndex& index, std::uint32_t position, simlist_element* record);
// Takes out the record at `position`, which is below count.
void positionIndexRemove(PositionIndex& index, std::uint32_t position);
// Takes out `length` records from `start`; start + length is at most count.
void positionIndexRemoveRange(PositionIndex& index, std::uint32_t start, std::uint32_t length);
// Empties the index; keeps one block for the next filling.
void positionIndexClear(PositionIndex& index);

} // namespace kelconf
