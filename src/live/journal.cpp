#include "live/journal.h"

#include "base/big_endian.h"
#include "base/fd.h"
#include "live/files.h"
#include "paths.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>

namespace kelconf {

namespace {

constexpr std::array<std::uint8_t, 8> kJournalMagic = {0xd9, 0xd5, 0x05, 0xf9,
                                                       0x20, 0xa1, 0x63, 0xd7};
constexpr std::size_t kPagesBeforeAt = 16; // of the database, in pages
constexpr std::size_t kPageSizeAt = 24;
constexpr std::size_t kJournalHeaderSize = 28;

} // namespace

LiveJournal lookAtLiveJournal() {
    const Fd file{open(paths::kLiveDbJournal, O_RDONLY | O_CLOEXEC)};
    std::array<std::uint8_t, kJournalHeaderSize> header{};
    const ssize_t got = file ? pread(file.get(), header.data(), header.size(), 0) : -1;
    if (got < 0) {
        return filePresent(paths::kLiveDbJournal) ? LiveJournal::kUnfinished : LiveJournal::kNone;
    }
    if (header[0] == 0) {
        return LiveJournal::kNone;
    }
    const std::uint64_t pages = getBigEndian<std::uint32_t>(&header[kPagesBeforeAt]);
    const std::uint64_t size = pages * getBigEndian<std::uint32_t>(&header[kPageSizeAt]);
    const bool known = std::equal(kJournalMagic.begin(), kJournalMagic.end(), header.begin());
    return known && size > sizeOfFile(paths::kLiveDb) + sizeOfFile(paths::kLiveDbJournal)
               ? LiveJournal::kImplausible
               : LiveJournal::kUnfinished;
}

} // namespace kelconf
