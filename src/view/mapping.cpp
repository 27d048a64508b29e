#include "view/mapping.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <bit>
#include <cerrno>
#include <ctime>
#include <utility>

namespace kelconf::view {

namespace {

constexpr std::int64_t kPatience = 100'000'000; // with a service that stands still, ns
constexpr unsigned kSpins = 100;

} // namespace

std::int64_t coarseNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

Outcome Mapping::open(const char* path, std::unique_ptr<Mapping>& opened) {
    Fd file{::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)};
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

Mapping::Mapping(Fd opened, const std::byte* mapped, std::size_t bytes)
    : file_(std::move(opened)), base_(mapped), size_(bytes) {}

Mapping::~Mapping() {
    munmap(const_cast<std::byte*>(base_), size_);
}

bool Mapping::sound() const {
    const Header& head = header();
    const std::uint64_t slots = std::uint64_t{head.slot_count} * sizeof(std::uint64_t);
    const std::uint64_t entries = std::uint64_t{head.count} * sizeof(Entry);
    return head.magic == kMagic && head.size == size_ && std::has_single_bit(head.slot_count) &&
           head.count < head.slot_count && head.slots_at % sizeof(Word) == 0 &&
           head.entries_at % sizeof(Word) == 0 && head.slots_at + slots <= size_ &&
           head.entries_at + entries <= size_;
}

// Asks the kernel whether somebody holds the write lock.
bool Mapping::locked() const {
    struct flock whole {};
    whole.l_type = F_RDLCK;
    whole.l_whence = SEEK_SET;
    return fcntl(file_.get(), F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
}

bool Mapping::alive() {
    if (state() != kServing) {
        return false;
    }
    const std::int64_t now = coarseNow();
    if (now - looked_.load(std::memory_order_relaxed) < kLookPeriod) {
        return true;
    }
    if (!locked()) {
        return false;
    }
    looked_.store(now, std::memory_order_relaxed);
    return true;
}

std::string_view Mapping::name(std::uint32_t number) const {
    const Entry& named = entry(number);
    const std::uint64_t end = std::uint64_t{named.name_at} + named.name_length;
    const auto* text = reinterpret_cast<const char*>(base_ + named.name_at);
    return end < size_ && base_[end] == std::byte{0} ? std::string_view{text, named.name_length}
                                                     : std::string_view{};
}

bool Mapping::find(std::string_view name, std::uint32_t& number) const {
    const Header& head = header();
    const auto* slots = alignedCast<const std::uint64_t>(base_ + head.slots_at);
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

std::uint32_t Mapping::firstFrom(std::string_view from, bool behind) const {
    std::uint32_t first = 0;
    for (std::uint32_t end = count(); first < end;) {
        const std::uint32_t middle = first + (end - first) / 2;
        const std::string_view found = name(middle);
        (behind ? found <= from : found < from) ? first = middle + 1 : end = middle;
    }
    return first;
}

// kOk: look again.
Outcome Mapping::waitForService(Wait& wait) const {
    if (state() != kServing) {
        return Outcome::kNoService;
    }
    if (++wait.spins % kSpins == 0) {
        const std::int64_t now = coarseNow();
        wait.began = wait.began == 0 ? now : wait.began;
        if (now - wait.began > kPatience) {
            return locked() ? Outcome::kBusy : Outcome::kNoService;
        }
        sched_yield();
    }
    return Outcome::kOk;
}

} // namespace kelconf::view
