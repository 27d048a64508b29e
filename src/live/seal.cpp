#include "live/seal.h"

#include "base/fd.h"
#include "files/md5_sidecar.h"
#include "live/files.h"
#include "live/journal.h"
#include "live/judge.h"
#include "log/keldebug.h"
#include "paths.h"

#include <fcntl.h>
#include <md5.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace kelconf {

namespace {

// SQLite's file header: https://www.sqlite.org/fileformat.html, section 1.3.
constexpr std::size_t kHeaderSize = 100;
constexpr std::size_t kChangeCounterAt = 24;
constexpr std::size_t kVersionValidForAt = 92; // the counter at the last change of the header
constexpr char kMagic[] = "SQLite format 3";   // with its terminator

constexpr mode_t kWitnessMode = 0640;
constexpr std::size_t kCounterDigits = 10;

// More commits than this between two sealings are a broken counter.
constexpr std::uint32_t kMostCommits = 1U << 24U;

using Header = std::array<unsigned char, kHeaderSize>;

std::uint32_t bigEndianAt(const Header& header, std::size_t at) {
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        number = (number << 8U) | header[at + i];
    }
    return number;
}

std::optional<std::uint32_t> readChangeCounter() {
    const Fd file{open(paths::kLiveDb, O_RDONLY | O_CLOEXEC)};
    Header header{};
    if (!file ||
        pread(file.get(), header.data(), header.size(), 0) != static_cast<ssize_t>(header.size())) {
        return {};
    }
    const std::uint32_t counter = bigEndianAt(header, kChangeCounterAt);
    if (std::memcmp(header.data(), kMagic, sizeof kMagic) != 0 ||
        counter != bigEndianAt(header, kVersionValidForAt)) {
        return {};
    }
    return counter;
}

// At most `size` bytes from the start of a file; empty when it cannot be read.
std::string readStart(const char* path, std::size_t size) {
    const Fd file{open(path, O_RDONLY | O_CLOEXEC)};
    std::string bytes(size, '\0');
    const ssize_t got = file ? pread(file.get(), bytes.data(), bytes.size(), 0) : -1;
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
}

// The whole witness of that counter and the sidecar as it is on disk.
std::string witnessOf(std::uint32_t counter) {
    std::array<char, kCounterDigits + 1> digits{};
    std::snprintf(digits.data(), digits.size(), "%010u", counter);
    std::string text{digits.data()};
    const std::string sealed = text + readStart(paths::kLiveDbMd5, MD5_DIGEST_LENGTH);
    std::array<char, MD5_DIGEST_STRING_LENGTH> digest{};
    MD5Data(reinterpret_cast<const std::uint8_t*>(sealed.data()), sealed.size(), digest.data());
    return text + ' ' + digest.data() + '\n';
}

// The counter of the last sealing, where the witness speaks for the sidecar that is there.
std::optional<std::uint32_t> readWitness() {
    const std::string text = readStart(paths::kLiveDbSeal, witnessOf(0).size());
    std::uint32_t counter = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), counter);
    return result.ec == std::errc{} && text == witnessOf(counter) ? std::optional{counter}
                                                                  : std::nullopt;
}

void writeWitness(std::uint32_t counter) {
    const Fd file{open(paths::kLiveDbSeal, O_WRONLY | O_CREAT | O_CLOEXEC, kWitnessMode)};
    const std::string text = witnessOf(counter);
    // Torn or failed, it explains nothing: a later interruption then counts as damage.
    [[maybe_unused]] const ssize_t written =
        file ? pwrite(file.get(), text.data(), text.size(), 0) : -1;
}

// What tells whether somebody wrote to the file.
struct Look {
    dev_t device;
    ino_t inode;
    off_t size;
    timespec written; // not the time of the last change, which a new mode moves as well

    bool operator==(const Look& other) const {
        return device == other.device && inode == other.inode && size == other.size &&
               written.tv_sec == other.written.tv_sec && written.tv_nsec == other.written.tv_nsec;
    }
};

std::optional<Look> lookOf(const char* path) {
    struct stat info {};
    if (lstat(path, &info) != 0) {
        return {};
    }
    return Look{info.st_dev, info.st_ino, info.st_size, info.st_mtim};
}

std::optional<Look> sealed_look; // guarded by backup_mutex

// A commit that failed half-way has left a journal: SQLite undoes it on the next read.
bool journalSettled() {
    if (lookAtLiveJournal() == LiveJournal::kNone) {
        return true;
    }
    if (const LiveLock lock; !lock) {
        return false; // of another process, which is at it
    }
    readInFull(paths::kLiveDb);
    if (lookAtLiveJournal() == LiveJournal::kNone) {
        return true;
    }
    keldebug(kLogError, kToBoth, "unfinished journal, live database not sealed\n");
    return false;
}

} // namespace

bool sealLiveDatabase() {
    sealed_look.reset();
    if (!journalSettled() || !createFileMD5(paths::kLiveDb, paths::kLiveDbMd5)) {
        return false;
    }
    if (const auto counter = readChangeCounter()) {
        writeWitness(*counter);
    }
    sealed_look = lookOf(paths::kLiveDb);
    return true;
}

bool settleLiveDatabase() {
    const bool sealed = sealLiveDatabase();
    sync();
    return sealed;
}

LiveSeal judgeLiveSeal() {
    if (sealedAsItStands()) {
        return LiveSeal::kMatches;
    }
    checkConfigDBMD5(); // for its record
    const auto counter = readChangeCounter();
    const auto witness = readWitness();
    if (counter && witness && *counter - *witness - 1U < kMostCommits) {
        return LiveSeal::kWrittenSince;
    }
    return LiveSeal::kBroken;
}

bool sealedAsItStands() {
    return checkFileMD5(paths::kLiveDb, paths::kLiveDbMd5) ||
           checkFileMD5(paths::kLiveDb, paths::kLiveNewMd5);
}

bool backupHasSameDigest() {
    const std::string digest = readStart(paths::kLiveDbMd5, MD5_DIGEST_LENGTH);
    return digest.size() == MD5_DIGEST_LENGTH &&
           digest == readStart(paths::kBackupDbMd5, MD5_DIGEST_LENGTH);
}

void trustLiveDatabase() {
    const auto counter = readChangeCounter();
    if (counter && readWitness() != counter) {
        writeWitness(*counter);
        sync();
    }
    sealed_look = lookOf(paths::kLiveDb);
}

bool untouchedSinceSealing() {
    return sealed_look.has_value() && sealed_look == lookOf(paths::kLiveDb);
}

} // namespace kelconf
