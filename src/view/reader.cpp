#include "view/reader.h"

#include "base/aligned.h"
#include "base/fd.h"
#include "view/layout.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <ctime>
#include <memory>
#include <new>
#include <utility>

namespace kelconf::view {

namespace {

constexpr std::int64_t kMillisecond = 1'000'000; // in ns, as all times here
constexpr std::int64_t kLookPeriod = 20 * kMillisecond;
constexpr std::int64_t kPatience = 100 * kMillisecond; // with a service that stands still
constexpr unsigned kSpins = 100;
constexpr int kAttempts = 3;
constexpr useconds_t kTurnPause = 50; // us

std::int64_t coarseNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now); // no system call
    return std::int64_t{now.tv_sec} * 1000 * kMillisecond + now.tv_nsec;
}

} // namespace

// One file, mapped.
struct Mapping {
    Mapping(Fd opened, const std::byte* mapped, std::size_t bytes)
        : file(std::move(opened)), base(mapped), size(bytes) {}
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    Mapping(Mapping&&) = delete;
    Mapping& operator=(Mapping&&) = delete;
    ~Mapping() { munmap(const_cast<std::byte*>(base), size); }

    [[nodiscard]] const Header& header() const { return *alignedCast<const Header>(base); }
    [[nodiscard]] const Entry& entry(std::uint32_t number) const {
        return alignedCast<const Entry>(base + header().entries_at)[number];
    }
    // Of the entry with this number; an empty one when the file says what cannot be.
    [[nodiscard]] std::string_view name(std::uint32_t number) const {
        const Entry& named = entry(number);
        const std::uint64_t end = std::uint64_t{named.name_at} + named.name_length;
        const auto* text = reinterpret_cast<const char*>(base + named.name_at);
        return end < size && base[end] == std::byte{0} ? std::string_view{text, named.name_length}
                                                       : std::string_view{};
    }

    [[nodiscard]] bool sound() const {
        const Header& head = header();
        const std::uint64_t slots = std::uint64_t{head.slot_count} * sizeof(std::uint64_t);
        const std::uint64_t entries = std::uint64_t{head.count} * sizeof(Entry);
        return head.magic == kMagic && head.size == size && std::has_single_bit(head.slot_count) &&
               head.count < head.slot_count && head.slots_at % sizeof(Word) == 0 &&
               head.entries_at % sizeof(Word) == 0 && head.slots_at + slots <= size &&
               head.entries_at + entries <= size;
    }

    // Asks the kernel whether somebody holds the write lock.
    [[nodiscard]] bool locked() const {
        struct flock whole {};
        whole.l_type = F_RDLCK;
        whole.l_whence = SEEK_SET;
        return fcntl(file.get(), F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
    }

    [[nodiscard]] std::uint32_t state() const {
        return header().state.load(std::memory_order_acquire);
    }

    bool alive() {
        if (state() != kServing) {
            return false;
        }
        const std::int64_t now = coarseNow();
        if (now - looked.load(std::memory_order_relaxed) < kLookPeriod) {
            return true;
        }
        if (!locked()) {
            return false;
        }
        looked.store(now, std::memory_order_relaxed);
        return true;
    }

    // False for an unknown name.
    bool find(std::string_view name, std::uint32_t& number) const {
        const Header& head = header();
        const auto* slots = alignedCast<const std::uint64_t>(base + head.slots_at);
        const std::uint64_t hash = hashOf(name);
        for (std::uint32_t i = 0; i < head.slot_count; ++i) {
            const std::uint64_t slot = slots[(hash + i) & (head.slot_count - 1)];
            if (slot == 0) {
                return false;
            }
            number = static_cast<std::uint32_t>(slot) - 1;
            if (slot == slotOf(hash, number) && number < head.count && this->name(number) == name) {
                return true;
            }
        }
        return false;
    }

    Fd file;
    const std::byte* base;
    std::size_t size;
    std::atomic<std::int64_t> looked{0};
    Mapping* next = nullptr; // among those that were replaced
};

namespace {

struct ValuePlace {
    const Word* words = nullptr;
    std::uint32_t length = 0;
};

// kOk or kNotInView; kBroken for what cannot be, which a change under way may also look like.
Outcome placeOf(const Mapping& mapping, std::uint32_t number, ValuePlace& place) {
    const Entry& entry = mapping.entry(number);
    const std::uint32_t length = entry.value_length.load(std::memory_order_acquire);
    const std::uint32_t at = entry.value_at.load(std::memory_order_acquire);
    if (length == kLeftOut) {
        return Outcome::kNotInView;
    }
    if (length > kLongestValue || at % sizeof(Word) != 0 || at > mapping.size ||
        wholeWords(length) > mapping.size - at) {
        return Outcome::kBroken;
    }
    place = {alignedCast<const Word>(mapping.base + at), length};
    return Outcome::kOk;
}

void copy(const ValuePlace& place, char* to) {
    const Word* words = place.words;
    for (std::size_t left = place.length; left > 0;) {
        const std::uint64_t word = (words++)->load(std::memory_order_acquire);
        const std::size_t part = std::min(left, sizeof(word));
        std::memcpy(to, &word, part);
        to += part;
        left -= part;
    }
}

// Runs `body` until nothing changed while it ran, and gives its result.
template <typename Body>
Outcome undisturbed(const Mapping& mapping, Body body) {
    const Header& header = mapping.header();
    std::int64_t began = 0;
    for (unsigned spins = 1;; ++spins) {
        const std::uint64_t before = header.sequence.load(std::memory_order_acquire);
        if (before % 2 == 0) {
            const Outcome outcome = body();
            if (header.sequence.load(std::memory_order_relaxed) == before) {
                return outcome;
            }
        }
        if (mapping.state() != kServing) {
            return Outcome::kNoService;
        }
        if (spins % kSpins == 0) {
            const std::int64_t now = coarseNow();
            began = began == 0 ? now : began;
            if (now - began > kPatience) {
                return mapping.locked() ? Outcome::kBusy : Outcome::kNoService;
            }
            sched_yield();
        }
    }
}

} // namespace

// Keeps the mappings of a reader from being closed while it lives.
class Reader::Use {
  public:
    explicit Use(Reader& reader) : reader_(reader) { ++reader_.reading_; }
    ~Use() { release(); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    Use(Use&&) = delete;
    Use& operator=(Use&&) = delete;

    void renew() {
        ++reader_.reading_;
        held_ = true;
    }
    void release() {
        if (held_) {
            --reader_.reading_;
            held_ = false;
        }
    }
    Mapping* mapping = nullptr;

  private:
    Reader& reader_;
    bool held_ = true;
};

Reader::~Reader() {
    replace(nullptr);
    reading_ = 0;
    collect();
}

// False when another thread has it.
bool Reader::takeTurn() {
    const pid_t self = getpid();
    pid_t holder = 0;
    return turn_.compare_exchange_strong(holder, self) ||
           (holder != self && turn_.compare_exchange_strong(holder, self));
}

// What nobody can be using any more is closed. By whose turn it is.
void Reader::collect() {
    if (reading_ != 0) {
        return; // whoever comes later finds the present mapping
    }
    for (Mapping* mapping = std::exchange(dropped_, nullptr); mapping != nullptr;) {
        const std::unique_ptr<Mapping> closed{mapping};
        mapping = closed->next;
    }
}

void Reader::replace(Mapping* fresh) {
    if (Mapping* old = current_.exchange(fresh)) {
        old->next = dropped_;
        dropped_ = old;
    }
}

namespace {

Outcome openMapping(const char* path, std::unique_ptr<Mapping>& opened) {
    Fd file{open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)};
    struct stat info {};
    if (!file) {
        return errno == EACCES || errno == EPERM                       ? Outcome::kRefused
               : errno == EMFILE || errno == ENFILE || errno == ENOMEM ? Outcome::kNoMemory
                                                                       : Outcome::kNoService;
    }
    if (fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
        info.st_size < static_cast<off_t>(sizeof(Header))) {
        return Outcome::kBroken;
    }
    const auto size = static_cast<std::size_t>(info.st_size);
    void* base = mmap(nullptr, size, PROT_READ, MAP_SHARED, file.get(), 0);
    if (base == MAP_FAILED) {
        return Outcome::kNoMemory;
    }
    opened = std::make_unique<Mapping>(std::move(file), static_cast<const std::byte*>(base), size);
    return opened->sound() ? Outcome::kOk : Outcome::kBroken;
}

} // namespace

// Nobody looks more often than the period, but after a move: then there is something to find.
Outcome Reader::reopen(const Mapping* stale, bool moved) {
    if (!moved && coarseNow() < next_look_.load(std::memory_order_relaxed)) {
        const Outcome last = last_look_;
        return last == Outcome::kOk ? Outcome::kNoService : last;
    }
    if (!takeTurn()) {
        usleep(kTurnPause); // another thread is at it, and soon done
        return Outcome::kOk;
    }
    Outcome outcome = Outcome::kOk;
    if (current_ == stale) {
        try {
            std::unique_ptr<Mapping> fresh;
            outcome = openMapping(path_, fresh);
            if (outcome == Outcome::kOk && !fresh->alive()) {
                outcome = Outcome::kNoService;
            }
            replace(outcome == Outcome::kOk ? fresh.release() : nullptr);
        } catch (const std::bad_alloc&) {
            outcome = Outcome::kNoMemory;
        }
        last_look_ = outcome;
        next_look_ = coarseNow() + kLookPeriod;
    }
    collect();
    turn_ = 0;
    return outcome;
}

// Gives the use a mapping of a service that lives.
Outcome Reader::attach(Use& use) {
    constexpr unsigned kTurns = 10000; // a second and more of waiting for another thread
    for (unsigned attempt = 0; attempt < kTurns; ++attempt) {
        use.mapping = current_;
        if (use.mapping != nullptr && use.mapping->alive()) {
            return Outcome::kOk;
        }
        const bool moved = use.mapping != nullptr && use.mapping->state() == kMoved;
        const Mapping* stale = use.mapping;
        use.release();
        const Outcome outcome = reopen(stale, moved);
        use.renew();
        if (outcome != Outcome::kOk) {
            return outcome;
        }
    }
    return Outcome::kBusy;
}

// Runs `body` on a mapping; again when the service left the file meanwhile.
template <typename Read>
Outcome Reader::read(Read body) {
    Outcome outcome = Outcome::kNoService;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        Use use{*this};
        outcome = attach(use);
        if (outcome != Outcome::kOk) {
            return outcome;
        }
        outcome = body(*use.mapping);
        if (outcome != Outcome::kNoService) {
            break;
        }
    }
    return outcome;
}

Outcome Reader::get(std::string_view name, char* buffer, std::size_t size, std::size_t& length) {
    return read([&](const Mapping& mapping) {
        std::uint32_t number = 0;
        if (!mapping.find(name, number)) {
            return Outcome::kUnknown;
        }
        return undisturbed(mapping, [&] {
            ValuePlace place;
            const Outcome outcome = placeOf(mapping, number, place);
            if (outcome != Outcome::kOk) {
                return outcome;
            }
            length = place.length;
            if (length >= size) {
                return Outcome::kTooSmall;
            }
            copy(place, buffer);
            buffer[length] = '\0';
            return Outcome::kOk;
        });
    });
}

Outcome Reader::getMany(std::span<const std::string_view> names, std::string& texts,
                        std::vector<Place>& places) {
    std::vector<std::uint32_t> numbers(names.size());
    return read([&](const Mapping& mapping) {
        places.assign(names.size(), {});
        for (std::size_t i = 0; i < names.size(); ++i) {
            places[i].known = mapping.find(names[i], numbers[i]);
        }
        return undisturbed(mapping, [&] {
            texts.clear();
            for (std::size_t i = 0; i < names.size(); ++i) {
                if (!places[i].known) {
                    continue;
                }
                ValuePlace value;
                const Outcome outcome = placeOf(mapping, numbers[i], value);
                if (outcome != Outcome::kOk) {
                    return outcome;
                }
                places[i].at = texts.size();
                texts.resize(texts.size() + value.length + 1);
                copy(value, texts.data() + places[i].at);
            }
            return Outcome::kOk;
        });
    });
}

namespace {

// The number of the first entry whose name is at least `from`, or, with `behind`, above it.
std::uint32_t firstFrom(const Mapping& mapping, std::string_view from, bool behind) {
    std::uint32_t first = 0;
    for (std::uint32_t end = mapping.header().count; first < end;) {
        const std::uint32_t middle = first + (end - first) / 2;
        const std::string_view name = mapping.name(middle);
        (behind ? name <= from : name < from) ? first = middle + 1 : end = middle;
    }
    return first;
}

// kOk with the value, or as placeOf.
Outcome readValue(const Mapping& mapping, std::uint32_t number, std::string& value) {
    return undisturbed(mapping, [&] {
        ValuePlace place;
        const Outcome outcome = placeOf(mapping, number, place);
        if (outcome == Outcome::kOk) {
            value.resize(place.length);
            copy(place, value.data());
        }
        return outcome;
    });
}

} // namespace

Outcome Reader::visit(std::string_view prefix, const Visitor& visitor) {
    std::string last{prefix}; // where a visit goes on that a new file has interrupted
    std::string value;
    bool begun = false;
    return read([&](const Mapping& mapping) {
        for (std::uint32_t number = firstFrom(mapping, last, begun);
             number < mapping.header().count; ++number) {
            const std::string_view name = mapping.name(number);
            if (!name.starts_with(prefix) || name.data() == nullptr) {
                break;
            }
            const Outcome outcome = readValue(mapping, number, value);
            if (outcome != Outcome::kOk && outcome != Outcome::kNotInView) {
                return outcome;
            }
            const bool shown = outcome == Outcome::kOk;
            if (!visitor(name.data(), shown ? value.c_str() : nullptr, shown ? value.size() : 0)) {
                break;
            }
            last = name;
            begun = true;
        }
        return Outcome::kOk;
    });
}

std::uint64_t Reader::changes() {
    std::uint64_t sequence = 0;
    read([&](const Mapping& mapping) {
        sequence = mapping.header().sequence.load(std::memory_order_acquire) | 1U;
        return Outcome::kOk;
    });
    return sequence;
}

} // namespace kelconf::view
