#include "container/position_index.h"

#include <algorithm>
#include <new>
#include <utility>

namespace kelconf {

namespace {

constexpr std::uint32_t kFirstDirectory = 4;

IndexBlock& blockAt(PositionIndex& index, std::uint32_t block) {
    return index.directory[(index.first_block + block) & index.directory_mask];
}

simlist_element*& slotOf(const PositionIndex& index, IndexBlock& block, std::uint32_t offset) {
    return block.slots[(block.start + offset) & index.slot_mask];
}

void moveStart(const PositionIndex& index, IndexBlock& block, std::uint32_t by) {
    block.start = (block.start + by) & index.slot_mask;
}

void stepForward(const PositionIndex& index, IndexBlock& block) {
    moveStart(index, block, 1);
}

void stepBack(const PositionIndex& index, IndexBlock& block) {
    moveStart(index, block, index.slot_mask);
}

// Moves the pointers at the offsets [from, to) of a block one offset up; `to` is overwritten.
void shiftUp(const PositionIndex& index, IndexBlock& block, std::uint32_t from, std::uint32_t to) {
    simlist_element** slots = block.slots.get();
    const std::uint32_t mask = index.slot_mask;
    const std::uint32_t first = (block.start + from) & mask;
    const std::uint32_t last = (block.start + to) & mask;
    if (first <= last) {
        std::copy_backward(slots + first, slots + last, slots + last + 1);
        return;
    }
    std::copy_backward(slots, slots + last, slots + last + 1);
    slots[0] = slots[mask];
    std::copy_backward(slots + first, slots + mask, slots + mask + 1);
}

// Moves the pointers at the offsets (from, to] of a block one offset down; `from` is overwritten.
void shiftDown(const PositionIndex& index, IndexBlock& block, std::uint32_t from,
               std::uint32_t to) {
    simlist_element** slots = block.slots.get();
    const std::uint32_t mask = index.slot_mask;
    const std::uint32_t first = (block.start + from) & mask;
    const std::uint32_t last = (block.start + to) & mask;
    if (first <= last) {
        std::copy(slots + first + 1, slots + last + 1, slots + first);
        return;
    }
    std::copy(slots + first + 1, slots + mask + 1, slots + first);
    slots[mask] = slots[0];
    std::copy(slots + 1, slots + last + 1, slots);
}

RecordSlots newSlots(std::uint32_t count) {
    return RecordSlots{new (std::nothrow) simlist_element*[count]};
}

RecordSlots takeWholeBlock(PositionIndex& index) {
    for (RecordSlots& spare : index.spare_blocks) {
        if (spare) {
            return std::move(spare);
        }
    }
    return newSlots(kBlockSlots);
}

void keepWholeBlock(PositionIndex& index, RecordSlots slots) {
    for (RecordSlots& spare : index.spare_blocks) {
        if (!spare) {
            spare = std::move(slots);
            return;
        }
    }
}

bool growDirectory(PositionIndex& index) {
    const std::uint32_t old_size = index.directory ? index.directory_mask + 1 : 0;
    const std::uint32_t size = old_size == 0 ? kFirstDirectory : old_size * 2;
    std::unique_ptr<IndexBlock[]> directory{new (std::nothrow) IndexBlock[size]};
    if (!directory) {
        return false;
    }
    for (std::uint32_t i = 0; i < index.block_count; ++i) {
        directory[i] = std::move(blockAt(index, i));
    }
    index.directory = std::move(directory);
    index.directory_mask = size - 1;
    index.first_block = 0;
    return true;
}

// Adds an empty whole block at the front or at the end.
bool addBlock(PositionIndex& index, bool at_front) {
    const bool full = !index.directory || index.block_count > index.directory_mask;
    if (full && !growDirectory(index)) {
        return false;
    }
    RecordSlots slots = takeWholeBlock(index);
    if (!slots) {
        return false;
    }
    if (at_front) {
        index.first_block = (index.first_block + index.directory_mask) & index.directory_mask;
        index.front += kBlockSlots;
    }
    IndexBlock& block = blockAt(index, at_front ? 0 : index.block_count);
    ++index.block_count;
    block = IndexBlock{std::move(slots), 0};
    return true;
}

// With one block left, offset 0 holds position 0 again, so that the block can fill up whole.
void settleSingleBlock(PositionIndex& index) {
    if (index.block_count == 1) {
        moveStart(index, blockAt(index, 0), index.front);
        index.front = 0;
    }
}

void dropLastBlock(PositionIndex& index) {
    --index.block_count;
    keepWholeBlock(index, std::move(blockAt(index, index.block_count).slots));
    settleSingleBlock(index);
}

void dropFirstBlock(PositionIndex& index) {
    keepWholeBlock(index, std::move(blockAt(index, 0).slots));
    --index.block_count;
    index.first_block = (index.first_block + 1) & index.directory_mask;
    index.front = 0;
}

// Doubles the only block while it is smaller than a whole one, or makes the first one.
bool growSingleBlock(PositionIndex& index) {
    if (!index.directory && !growDirectory(index)) {
        return false;
    }
    const std::uint32_t size = index.block_count == 0 ? kFirstBlockSlots : index.count * 2;
    RecordSlots slots = newSlots(size);
    if (!slots) {
        return false;
    }
    for (std::uint32_t i = 0; i < index.count; ++i) {
        slots[i] = positionIndexAt(index, i);
    }
    index.block_count = 1;
    index.slot_mask = size - 1;
    blockAt(index, 0) = IndexBlock{std::move(slots), 0};
    return true;
}

bool singleBlockFits(const PositionIndex& index) {
    return index.block_count == 1 && index.count <= index.slot_mask;
}

void insertInSingleBlock(PositionIndex& index, std::uint32_t position, simlist_element* record) {
    IndexBlock& block = blockAt(index, 0);
    if (position < index.count / 2) {
        stepBack(index, block);
        shiftDown(index, block, 0, position);
    } else {
        shiftUp(index, block, position, index.count);
    }
    slotOf(index, block, position) = record;
    ++index.count;
}

void removeInSingleBlock(PositionIndex& index, std::uint32_t position) {
    IndexBlock& block = blockAt(index, 0);
    if (position < index.count / 2) {
        shiftUp(index, block, 0, position);
        stepForward(index, block);
    } else {
        shiftDown(index, block, position, index.count - 1);
    }
    --index.count;
}

bool insertTowardsEnd(PositionIndex& index, std::uint32_t position, simlist_element* record) {
    const std::uint32_t last = (index.count + index.front) >> kBlockShift;
    if (last == index.block_count && !addBlock(index, false)) {
        return false;
    }
    const std::uint32_t offset = position + index.front;
    const std::uint32_t target = offset >> kBlockShift;
    const std::uint32_t inside = offset & (kBlockSlots - 1);
    IndexBlock& block = blockAt(index, target);
    if (target == last) {
        shiftUp(index, block, inside, (index.count + index.front) & (kBlockSlots - 1));
        slotOf(index, block, inside) = record;
    } else {
        simlist_element* carried = slotOf(index, block, kBlockSlots - 1);
        shiftUp(index, block, inside, kBlockSlots - 1);
        slotOf(index, block, inside) = record;
        for (std::uint32_t i = target + 1; i <= last; ++i) {
            IndexBlock& next = blockAt(index, i);
            stepBack(index, next);
            std::swap(carried, slotOf(index, next, 0));
        }
    }
    ++index.count;
    return true;
}

bool insertTowardsFront(PositionIndex& index, std::uint32_t position, simlist_element* record) {
    if (index.front == 0 && !addBlock(index, true)) {
        return false;
    }
    --index.front;
    const std::uint32_t offset = position + index.front;
    const std::uint32_t target = offset >> kBlockShift;
    const std::uint32_t inside = offset & (kBlockSlots - 1);
    IndexBlock& block = blockAt(index, target);
    if (target == 0) {
        shiftDown(index, block, index.front, inside);
        slotOf(index, block, inside) = record;
    } else {
        simlist_element* carried = slotOf(index, block, 0);
        shiftDown(index, block, 0, inside);
        slotOf(index, block, inside) = record;
        for (std::uint32_t i = target; i-- > 0;) {
            IndexBlock& previous = blockAt(index, i);
            stepForward(index, previous);
            std::swap(carried, slotOf(index, previous, kBlockSlots - 1));
        }
    }
    ++index.count;
    return true;
}

void removeTowardsEnd(PositionIndex& index, std::uint32_t position) {
    const std::uint32_t end = index.count - 1 + index.front;
    const std::uint32_t last = end >> kBlockShift;
    const std::uint32_t offset = position + index.front;
    const std::uint32_t target = offset >> kBlockShift;
    const std::uint32_t inside = offset & (kBlockSlots - 1);
    IndexBlock& block = blockAt(index, target);
    if (target == last) {
        shiftDown(index, block, inside, end & (kBlockSlots - 1));
    } else {
        simlist_element* carried = nullptr;
        for (std::uint32_t i = last; i > target; --i) {
            IndexBlock& next = blockAt(index, i);
            std::swap(carried, slotOf(index, next, 0));
            stepForward(index, next);
        }
        shiftDown(index, block, inside, kBlockSlots - 1);
        slotOf(index, block, kBlockSlots - 1) = carried;
    }
    --index.count;
    if (last > 0 && (end & (kBlockSlots - 1)) == 0) {
        dropLastBlock(index);
    }
}

void removeTowardsFront(PositionIndex& index, std::uint32_t position) {
    const std::uint32_t offset = position + index.front;
    const std::uint32_t target = offset >> kBlockShift;
    const std::uint32_t inside = offset & (kBlockSlots - 1);
    IndexBlock& block = blockAt(index, target);
    if (target == 0) {
        shiftUp(index, block, index.front, inside);
    } else {
        simlist_element* carried = nullptr;
        for (std::uint32_t i = 0; i < target; ++i) {
            IndexBlock& previous = blockAt(index, i);
            std::swap(carried, slotOf(index, previous, kBlockSlots - 1));
            stepBack(index, previous);
        }
        shiftUp(index, block, 0, inside);
        slotOf(index, block, 0) = carried;
    }
    --index.count;
    ++index.front;
    if (index.front == kBlockSlots) {
        dropFirstBlock(index);
    }
}

} // namespace

bool positionIndexInsert(PositionIndex& index, std::uint32_t position, simlist_element* record) {
    const bool small =
        index.block_count == 0 ||
        (index.block_count == 1 && !singleBlockFits(index) && index.slot_mask < kBlockSlots - 1);
    if (small && !growSingleBlock(index)) {
        return false;
    }
    if (singleBlockFits(index)) {
        insertInSingleBlock(index, position, record);
        return true;
    }
    return position < index.count / 2 ? insertTowardsFront(index, position, record)
                                      : insertTowardsEnd(index, position, record);
}

void positionIndexRemove(PositionIndex& index, std::uint32_t position) {
    if (index.block_count == 1) {
        removeInSingleBlock(index, position);
    } else if (position < index.count / 2) {
        removeTowardsFront(index, position);
    } else {
        removeTowardsEnd(index, position);
    }
}

void positionIndexRemoveRange(PositionIndex& index, std::uint32_t start, std::uint32_t length) {
    const std::uint32_t after = index.count - start - length;
    const std::uint32_t kept = std::min(start, after);
    // One by one costs about a block for each; moving the shorter kept side costs its length.
    if (std::uint64_t{length} * kBlockSlots < kept) {
        for (std::uint32_t i = 0; i < length; ++i) {
            positionIndexRemove(index, start);
        }
        return;
    }
    if (after <= start) {
        for (std::uint32_t i = 0; i < after; ++i) {
            positionIndexSlot(index, start + i + index.front) =
                positionIndexAt(index, start + length + i);
        }
    } else {
        for (std::uint32_t i = start; i-- > 0;) {
            positionIndexSlot(index, length + i + index.front) = positionIndexAt(index, i);
        }
    }
    for (std::uint32_t i = 0; i < length; ++i) {
        if (after <= start) {
            positionIndexRemove(index, index.count - 1);
        } else {
            positionIndexRemove(index, 0);
        }
    }
}

void positionIndexClear(PositionIndex& index) {
    for (std::uint32_t i = 1; i < index.block_count; ++i) {
        blockAt(index, i) = IndexBlock{};
    }
    index.block_count = std::min(index.block_count, 1U);
    index.count = 0;
    index.front = 0;
    index.spare_blocks = {};
}

} // namespace kelconf
