// One file of the view (view/layout.h), mapped for reading; any number of threads may read it.
//
// The file is not trusted: each offset and length is held against its size. It must not be made
// shorter while it is mapped; only the service's own user and root could.
#pragma once

#include "base/aligned.h"
#include "base/fd.h"
#include "view/layout.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

namespace kelconf::view {

enum class Outcome {
    kOk,
    kNoService, // also: it publishes no view
    kUnknown,
    kTooSmall,
    kNotInView,
    kBusy,    // the service stands still in the middle of a change
    kRefused, // the file is not open to this user
    kBroken,  // a file of another version, or damaged
    kNoMemory
};

// How often the kernel is asked whether a service lives, at most. Nanoseconds, as all times here.
inline constexpr std::int64_t kLookPeriod = 20'000'000;

// Of a clock that needs no system call and moves in steps of some milliseconds.
std::int64_t coarseNow();

// A value in the file.
struct ValuePlace {
    const Word* words = nullptr;
    std::uint32_t length = 0; // bytes

    void copy(char* to) const;
};

class Mapping {
  public:
    // kOk, kNoService, kRefused, kNoMemory, or kBroken for what is no view of this version. Throws
    // std::bad_alloc.
    static Outcome open(const char* path, std::unique_ptr<Mapping>& opened);

    Mapping(Fd opened, const std::byte* mapped, std::size_t bytes);
    ~Mapping();
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    Mapping(Mapping&&) = delete;
    Mapping& operator=(Mapping&&) = delete;

    [[nodiscard]] std::uint32_t state() const { // a State
        return header().state.load(std::memory_order_acquire);
    }
    // Whether a service stands behind the file: asked of the kernel once in kLookPeriod.
    [[nodiscard]] bool alive();
    [[nodiscard]] std::uint64_t sequence() const {
        return header().sequence.load(std::memory_order_acquire);
    }

    [[nodiscard]] std::uint32_t count() const { return header().count; }
    // The name of the entry with this number, below count(); empty, with null for its data, where
    // the file says what cannot be.
    [[nodiscard]] std::string_view name(std::uint32_t number) const;
    // False for an unknown name.
    bool find(std::string_view name, std::uint32_t& number) const;
    // The number of the first entry whose name is at least `from`, or, with `behind`, above it.
    [[nodiscard]] std::uint32_t firstFrom(std::string_view from, bool behind) const;
    // kOk or kNotInView; kBroken for what cannot be, which a change under way may also look like.
    Outcome placeOf(std::uint32_t number, ValuePlace& place) const;

    // Runs `body` until nothing changed while it ran, and gives its result; kNoService or kBusy
    // where the service does not come to the end of a change.
    template <typename Body>
    Outcome undisturbed(Body body) const {
        for (Wait wait;;) {
            const std::uint64_t before = sequence();
            if (before % 2 == 0) {
                const Outcome outcome = body();
                if (header().sequence.load(std::memory_order_relaxed) == before) {
                    return outcome;
                }
            }
            const Outcome waited = waitForService(wait);
            if (waited != Outcome::kOk) {
                return waited;
            }
        }
    }

    Mapping* next = nullptr; // of a chain that the owner makes

  private:
    struct Wait {
        unsigned spins = 0;
        std::int64_t began = 0;
    };

    [[nodiscard]] const Header& header() const { return *alignedCast<const Header>(base_); }
    [[nodiscard]] const Entry& entry(std::uint32_t number) const {
        return alignedCast<const Entry>(base_ + header().entries_at)[number];
    }
    [[nodiscard]] bool sound() const;
    [[nodiscard]] bool locked() const;
    Outcome waitForService(Wait& wait) const;

    Fd file_;
    const std::byte* base_;
    std::size_t size_; // bytes
    std::atomic<std::int64_t> looked_{0};
};

// For each value that is read.

inline void ValuePlace::copy(char* to) const {
    const Word* from = words;
    for (std::size_t left = length; left > 0;) {
        const std::uint64_t word = (from++)->load(std::memory_order_acquire);
        const std::size_t part = std::min(left, sizeof(word));
        std::memcpy(to, &word, part);
        to += part;
        left -= part;
    }
}

inline Outcome Mapping::placeOf(std::uint32_t number, ValuePlace& place) const {
    const Entry& named = entry(number);
    const std::uint32_t length = named.value_length.load(std::memory_order_acquire);
    const std::uint32_t at = named.value_at.load(std::memory_order_acquire);
    if (length == kLeftOut) {
        return Outcome::kNotInView;
    }
    if (length > kLongestValue || at % sizeof(Word) != 0 || at > size_ ||
        wholeWords(length) > size_ - at) {
        return Outcome::kBroken;
    }
    place = {alignedCast<const Word>(base_ + at), length};
    return Outcome::kOk;
}

} // namespace kelconf::view
