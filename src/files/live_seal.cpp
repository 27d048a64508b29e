#include "files/live_seal.h"

#include "files/fd.h"
#include "files/md5_sidecar.h"
#include "paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>

namespace kelconf {

namespace {

// SQLite's file header: https://www.sqlite.org/fileformat.html, section 1.3.
constexpr std::size_t kHeaderSize = 100;
constexpr std::size_t kChangeCounterAt = 24;
constexpr std::size_t kVersionValidForAt = 92; // the counter at the last change of the header
constexpr char kMagic[] = "SQLite format 3";   // with its terminator

constexpr mode_t kWitnessMode = 0640;
constexpr std::size_t kWitnessSize = 11;

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

std::optional<std::uint32_t> readWitness() {
    const Fd file{open(paths::kLiveDbSeal, O_RDONLY | O_CLOEXEC)};
    std::array<char, kWitnessSize> text{};
    if (!file ||
        pread(file.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        return {};
    }
    std::uint32_t counter = 0;
    const char* end = text.data() + text.size() - 1;
    const auto result = std::from_chars(text.data(), end, counter);
    if (result.ec != std::errc{} || result.ptr != end) {
        return {};
    }
    return counter;
}

void writeWitness(std::uint32_t counter) {
    const Fd file{open(paths::kLiveDbSeal, O_WRONLY | O_CREAT | O_CLOEXEC, kWitnessMode)};
    if (!file) {
        return;
    }
    std::array<char, kWitnessSize + 1> text{};
    std::snprintf(text.data(), text.size(), "%010u\n", counter);
    // Torn or failed, it explains nothing: a later interruption then counts as damage.
    [[maybe_unused]] const ssize_t written = pwrite(file.get(), text.data(), kWitnessSize, 0);
}

} // namespace

void sealLiveDatabase() {
    if (!createFileMD5(paths::kLiveDb, paths::kLiveDbMd5)) {
        return;
    }
    if (const auto counter = readChangeCounter()) {
        writeWitness(*counter);
    }
}

LiveSeal judgeLiveSeal() {
    if (checkConfigDBMD5()) {
        return LiveSeal::kMatches;
    }
    const auto counter = readChangeCounter();
    const auto witness = readWitness();
    if (counter && witness && *counter - *witness - 1U < kMostCommits) {
        return LiveSeal::kWrittenSince;
    }
    return LiveSeal::kBroken;
}

} // namespace kelconf
