// The view: the live values in a file that others map read-only (paths::kView). The publisher
// (view/publisher.h) writes it, the reader (view/reader.h) knows nothing else of the service.
//
// LMDB was looked at and not taken: its readers write into its lock file, so they must be able to,
// and a reader that never ends holds pages back. Here a reader can neither write nor be waited for.
//
// The file, in the machine's own byte order; offsets are bytes from its start:
//
//   Header
//   slots    a hash table over the names, open addressing: slot_count words of 64 bits, 0 for an
//            empty one, else the upper half of the name's hash and the number of its entry plus 1
//   entries  `count` of them, ascending by name (byte order)
//   names    the names' bytes, each ended by a zero byte
//   values   room for each value, in whole words; values that outgrow theirs get new room behind
//
// Slots, entries' names and names stay as they are. Entries' values and the values themselves
// change: the publisher makes `sequence` odd before and even after, a reader that finds it odd, or
// another after than before, reads again. Both touch what changes by atomic words alone: a word is
// stored with release and loaded with acquire, so whoever sees a word that is new sees the odd
// sequence from before it.
//
// Who holds the write lock (an open-file-description lock, fcntl(2)) on the file is alive. `state`
// tells of an orderly end. A file that gets too small is replaced: another one takes its name, then
// this one's state says so; its sequence stays odd.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace kelconf::view {

inline constexpr std::uint64_t kMagic =
    0x31574549564c454bULL; // "KELVIEW1" where the low byte is first

// Longer ones are left to the bus. Bytes.
inline constexpr std::size_t kLongestValue = 64UL * 1024;
// In place of a length: a secret, or too long a value.
inline constexpr std::uint32_t kLeftOut = 0xffffffffU;

enum State : std::uint32_t { kServing = 1, kMoved = 2, kDead = 3 };

struct Header {
    std::uint64_t magic;
    std::uint32_t size; // of the file
    std::uint32_t count;
    std::uint32_t slot_count; // a power of two above count
    std::uint32_t slots_at;
    std::uint32_t entries_at;
    std::atomic<std::uint32_t> state;
    std::array<std::byte, 32> reserved;
    // Twice the changes, and a start that no earlier file has reached: the nanoseconds since the
    // device started. On a cache line of its own.
    alignas(64) std::atomic<std::uint64_t> sequence;
    std::array<std::byte, 56> unused; // by anything that is written
};

struct Entry {
    std::uint32_t name_at;
    std::uint32_t name_length;
    std::atomic<std::uint32_t> value_at;
    std::atomic<std::uint32_t> value_length; // bytes, without a terminator
};

using Word = std::atomic<std::uint64_t>;

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "readers map without write access");
static_assert(sizeof(Word) == 8 && sizeof(Entry) == 16 && sizeof(Header) == 128);

constexpr std::size_t wholeWords(std::size_t bytes) {
    return (bytes + sizeof(Word) - 1) / sizeof(Word) * sizeof(Word);
}

// Of the name's bytes, a word at a time (multiply and fold).
inline std::uint64_t hashOf(std::string_view name) {
    constexpr std::uint64_t kFactor = 0x9e3779b97f4a7c15ULL; // 2^64 by the golden ratio
    std::uint64_t hash = name.size() * kFactor;
    while (!name.empty()) {
        std::uint64_t word = 0;
        const std::size_t part = name.size() < sizeof(word) ? name.size() : sizeof(word);
        std::memcpy(&word, name.data(), part);
        hash = (hash ^ word) * kFactor;
        hash ^= hash >> 32;
        name.remove_prefix(part);
    }
    return hash;
}

constexpr std::uint64_t slotOf(std::uint64_t hash, std::uint32_t entry) {
    return (hash & 0xffffffff00000000ULL) | (entry + 1U);
}

} // namespace kelconf::view
