#include "view/publisher.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <limits>
#include <string>
#include <utility>

namespace kelconf::view {

namespace {

constexpr mode_t kMode = 0640;
constexpr std::size_t kLeastRoom = 16;       // bytes of a value's first room
constexpr std::size_t kSpare = 128UL * 1024; // bytes for values that grow, and
constexpr std::size_t kSpareShare = 4;       // this part of what the values take
constexpr std::size_t kLargest = 1UL << 30U; // bytes of a file; offsets have 32 bits

bool fits(const Item& item) {
    return !item.secret && item.value.size() <= kLongestValue;
}

std::size_t roomFor(std::size_t length) {
    return std::max(kLeastRoom, wholeWords(length));
}

std::uint32_t slotsFor(std::size_t count) {
    return static_cast<std::uint32_t>(std::bit_ceil(2 * count + 1));
}

struct Plan {
    std::size_t slots_at, entries_at, names_at, values_at, size;
};

Plan planFor(const std::vector<Item>& items) {
    std::size_t names = 0;
    std::size_t values = 0;
    for (const Item& item : items) {
        names += item.name.size() + 1;
        values += fits(item) ? roomFor(item.value.size()) : kLeastRoom;
    }
    Plan plan{sizeof(Header), 0, 0, 0, 0};
    plan.entries_at = plan.slots_at + slotsFor(items.size()) * sizeof(std::uint64_t);
    plan.names_at = plan.entries_at + items.size() * sizeof(Entry);
    plan.values_at = wholeWords(plan.names_at + names);
    plan.size = plan.values_at + values + wholeWords(values / kSpareShare) + kSpare;
    return plan;
}

// Held as long as the description lives, so a process that ends in any way lets go of it.
bool lock(int fd) {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    return fcntl(fd, F_OFD_SETLK, &whole) == 0;
}

// The file's room is taken now: later a full file system would be a signal, not an error.
Fd makeFile(const std::string& path, std::size_t size) {
    unlink(path.c_str());
    Fd file{open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode)};
    if (!file || !lock(file.get())) {
        return {};
    }
    if (const int error = posix_fallocate(file.get(), 0, static_cast<off_t>(size)); error != 0) {
        errno = error;
        return {};
    }
    return file;
}

std::byte* map(const Fd& file, std::size_t size) {
    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    return base == MAP_FAILED ? nullptr : static_cast<std::byte*>(base);
}

// Even, and above that of every earlier file of this device's run: no file changes a thousand
// million times a second.
std::uint64_t firstSequence(std::uint64_t earlier) {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    constexpr std::uint64_t kNanoseconds = 1'000'000'000;
    const auto since = static_cast<std::uint64_t>(now.tv_sec) * kNanoseconds +
                       static_cast<std::uint64_t>(now.tv_nsec);
    return (std::max(since, earlier + 2) + 1) & ~std::uint64_t{1};
}

} // namespace

void retire(const char* path) {
    const Fd file{open(path, O_RDWR | O_NOFOLLOW | O_CLOEXEC)};
    struct stat info {};
    if (file && fstat(file.get(), &info) == 0 && S_ISREG(info.st_mode) &&
        info.st_size >= static_cast<off_t>(sizeof(Header))) {
        if (std::byte* base = map(file, sizeof(Header))) {
            auto& header = *alignedCast<Header>(base);
            if (header.magic == kMagic) {
                header.state.store(kDead, std::memory_order_release);
            }
            munmap(base, sizeof(Header));
        }
    }
    unlink(path);
}

Publisher::Publisher(Fd file, std::byte* base, std::size_t size)
    : file_(std::move(file)), base_(base), size_(size) {}

Publisher::Publisher(Publisher&& other) noexcept
    : file_(std::move(other.file_)), base_(std::exchange(other.base_, nullptr)),
      size_(std::exchange(other.size_, 0)), free_at_(other.free_at_), room_(std::move(other.room_)),
      secret_(std::move(other.secret_)) {}

Publisher& Publisher::operator=(Publisher&& other) noexcept {
    std::swap(file_, other.file_);
    std::swap(base_, other.base_);
    std::swap(size_, other.size_);
    free_at_ = other.free_at_;
    room_.swap(other.room_);
    secret_.swap(other.secret_);
    return *this;
}

Publisher::~Publisher() {
    if (base_ != nullptr) {
        munmap(base_, size_);
    }
}

std::optional<Publisher> Publisher::publish(const char* path, const std::vector<Item>& items,
                                            std::uint64_t earlier) {
    const Plan plan = planFor(items);
    if (plan.size > kLargest) {
        errno = EFBIG;
        return {};
    }
    const std::string fresh = std::string{path} + ".new";
    Fd file = makeFile(fresh, plan.size);
    std::byte* base = file ? map(file, plan.size) : nullptr;
    if (base == nullptr) {
        const int error = errno;
        unlink(fresh.c_str());
        errno = error;
        return {};
    }
    Publisher made{std::move(file), base, plan.size};
    Header& header = *new (base) Header{};
    header.magic = kMagic;
    header.size = static_cast<std::uint32_t>(plan.size);
    header.count = static_cast<std::uint32_t>(items.size());
    header.slot_count = slotsFor(items.size());
    header.slots_at = static_cast<std::uint32_t>(plan.slots_at);
    header.entries_at = static_cast<std::uint32_t>(plan.entries_at);
    header.state = kServing;
    header.sequence = firstSequence(earlier);
    made.free_at_ = static_cast<std::uint32_t>(plan.values_at);
    made.fill(items);
    if (rename(fresh.c_str(), path) != 0) {
        const int error = errno;
        unlink(fresh.c_str());
        errno = error;
        return {};
    }
    return made;
}

void Publisher::fill(const std::vector<Item>& items) {
    const Header& header = this->header();
    auto* slots = alignedCast<std::uint64_t>(base_ + header.slots_at);
    auto name_at = static_cast<std::uint32_t>(header.entries_at + items.size() * sizeof(Entry));
    room_.reserve(items.size());
    secret_.reserve(items.size());
    for (std::uint32_t i = 0; i < header.count; ++i) {
        const Item& item = items[i];
        std::memcpy(base_ + name_at, item.name.data(), item.name.size());
        const auto length = static_cast<std::uint32_t>(item.name.size());
        const auto value_length = static_cast<std::uint32_t>(item.value.size());
        const bool shown = fits(item);
        new (&entry(i)) Entry{name_at, length, free_at_, shown ? value_length : kLeftOut};
        if (shown) {
            write(free_at_, item.value);
        }
        room_.push_back(static_cast<std::uint32_t>(shown ? roomFor(value_length) : kLeastRoom));
        secret_.push_back(item.secret);
        name_at += length + 1;
        free_at_ += room_.back();

        const std::uint64_t hash = hashOf(item.name);
        auto at = static_cast<std::uint32_t>(hash) & (header.slot_count - 1);
        while (slots[at] != 0) {
            at = (at + 1) & (header.slot_count - 1);
        }
        slots[at] = slotOf(hash, i);
    }
}

bool Publisher::find(std::string_view name, std::uint32_t& number) const {
    const Header& header = this->header();
    const auto* slots = alignedCast<const std::uint64_t>(base_ + header.slots_at);
    const std::uint64_t hash = hashOf(name);
    for (auto at = static_cast<std::uint32_t>(hash);; ++at) {
        const std::uint64_t slot = slots[at & (header.slot_count - 1)];
        if (slot == 0) {
            return false;
        }
        number = static_cast<std::uint32_t>(slot) - 1;
        if (slot == slotOf(hash, number)) {
            const Entry& found = entry(number);
            const auto* text = reinterpret_cast<const char*>(base_ + found.name_at);
            if (std::string_view{text, found.name_length} == name) {
                return true;
            }
        }
    }
}

void Publisher::write(std::uint32_t at, std::string_view value) {
    auto* words = alignedCast<Word>(base_ + at);
    while (!value.empty()) {
        std::uint64_t word = 0;
        const std::size_t part = std::min(value.size(), sizeof(word));
        std::memcpy(&word, value.data(), part);
        (words++)->store(word, std::memory_order_release);
        value.remove_prefix(part);
    }
}

void Publisher::begin() {
    std::atomic<std::uint64_t>& sequence = header().sequence;
    sequence.store(sequence.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void Publisher::end() {
    std::atomic<std::uint64_t>& sequence = header().sequence;
    sequence.store(sequence.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

bool Publisher::set(std::string_view name, std::string_view value) {
    std::uint32_t number = 0;
    if (!find(name, number) || secret_[number]) {
        return true;
    }
    Entry& changed = entry(number);
    if (value.size() > kLongestValue) {
        changed.value_length.store(kLeftOut, std::memory_order_release);
        return true;
    }
    if (value.size() > room_[number]) {
        const std::size_t room = roomFor(value.size() + value.size() / kSpareShare);
        if (room > size_ - free_at_) {
            return false;
        }
        changed.value_at.store(free_at_, std::memory_order_release);
        room_[number] = static_cast<std::uint32_t>(room);
        free_at_ += static_cast<std::uint32_t>(room);
    }
    write(changed.value_at.load(std::memory_order_relaxed), value);
    changed.value_length.store(static_cast<std::uint32_t>(value.size()), std::memory_order_release);
    return true;
}

void Publisher::leave(State state) {
    header().state.store(state, std::memory_order_release);
}

std::uint64_t Publisher::sequence() const {
    return header().sequence.load(std::memory_order_relaxed);
}

} // namespace kelconf::view
