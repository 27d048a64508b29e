#include "cli/session/store_state.h"

#include "base/fd.h"
#include "db/sqlite_handle.h"

#include <fcntl.h>
#include <md5.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <optional>
#include <thread>
#include <vector>

namespace kelconf::cli {

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::size_t kDigestSize = MD5_DIGEST_LENGTH;
constexpr std::size_t kWitnessDigits = 10;
constexpr int kLooks = 20;
constexpr std::chrono::milliseconds kPause{50};

// 0, or errno. At most `limit` bytes when that is not 0.
int readBytes(const char* path, Bytes& bytes, std::size_t limit = 0) {
    const Fd file{open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    struct stat info {};
    if (!file || fstat(file.get(), &info) != 0) {
        return errno;
    }
    if (!S_ISREG(info.st_mode)) {
        return EINVAL;
    }
    bytes.resize(limit != 0 ? limit : static_cast<std::size_t>(info.st_size));
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t length = readSome(file.get(), bytes.data() + filled, bytes.size() - filled);
        if (length < 0) {
            return errno;
        }
        if (length == 0) {
            break;
        }
        filled += static_cast<std::size_t>(length);
    }
    bytes.resize(filled);
    return 0;
}

Bytes digestOf(const Bytes& content) {
    Bytes digest(kDigestSize);
    MD5_CTX state;
    MD5Init(&state);
    MD5Update(&state, content.data(), content.size());
    MD5Final(digest.data(), &state);
    return digest;
}

// SQLite's change counter, in the header of the file.
std::optional<std::uint32_t> changeCounter(const Bytes& content) {
    constexpr std::size_t kAt = 24;
    if (content.size() < kAt + 4) {
        return {};
    }
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        number = (number << 8U) | content[kAt + i];
    }
    return number;
}

// True when SQLite has committed since the file was sealed.
bool writtenSince(const StoreFile& file, const Bytes& content) {
    constexpr std::uint32_t kMostCommits = 1U << 24U; // more are a broken counter
    Bytes witness;
    const auto counter = changeCounter(content);
    if (!counter || file.witness == nullptr || readBytes(file.witness, witness) != 0 ||
        witness.size() <= kWitnessDigits) {
        return false;
    }
    const auto* digits = reinterpret_cast<const char*>(witness.data());
    std::uint32_t sealed = 0;
    const auto result = std::from_chars(digits, digits + kWitnessDigits, sealed);
    return result.ptr == digits + kWitnessDigits && *counter - sealed - 1U < kMostCommits;
}

// -1 when the bytes are no database with that table.
std::int64_t countRows(Bytes& content, const char* table) {
    sqlite3* opened = nullptr;
    const int status = sqlite3_open_v2(":memory:", &opened, SQLITE_OPEN_READWRITE, nullptr);
    const Database database{opened};
    const auto size = static_cast<sqlite3_int64>(content.size());
    if (status != SQLITE_OK || sqlite3_deserialize(opened, "main", content.data(), size, size,
                                                   SQLITE_DESERIALIZE_READONLY) != SQLITE_OK) {
        return -1;
    }
    const Statement count = kelconf::prepare(opened, std::string{"SELECT count(*) FROM "} + table);
    return count && sqlite3_step(count.get()) == SQLITE_ROW ? sqlite3_column_int64(count.get(), 0)
                                                            : -1;
}

bool journalBeside(const StoreFile& file) {
    return file.journal != nullptr && access(file.journal, F_OK) == 0;
}

std::string unreadable(int failure) {
    return std::string{"cannot be read: "} + std::strerror(failure);
}

StoreState look(const StoreFile& file) {
    Bytes content;
    Bytes sidecar;
    if (const int failure = readBytes(file.path, content); failure != 0) {
        return failure == ENOENT ? StoreState{false, "missing", "missing", 0}
                                 : StoreState{false, unreadable(failure), "unreadable", 0};
    }
    StoreState state;
    if (const int failure = readBytes(file.sidecar, sidecar, kDigestSize); failure != 0) {
        state = {false,
                 failure == ENOENT ? "its sidecar is missing"
                                   : "its sidecar " + unreadable(failure),
                 "unsealed", 0};
    } else if (journalBeside(file)) {
        state = {false, "an unfinished write waits in its journal", "unfinished", 0};
    } else if (digestOf(content) == sidecar) {
        state = {true, "sound", "sound", 0};
    } else if (writtenSince(file, content)) {
        state = {false, "written after it was sealed", "unfinished", 0};
    } else {
        state = {false, "damaged: does not match its sidecar", "damaged", 0};
    }
    state.rows = countRows(content, file.table);
    if (state.rows < 0) {
        state = {false, state.in_order ? "holds no table " + std::string{file.table} : state.words,
                 "damaged", 0};
    }
    return state;
}

} // namespace

StoreState judgeStore(const StoreFile& file, bool in_use) {
    StoreState state = look(file);
    for (int looks = 1; in_use && !state.in_order && looks < kLooks; ++looks) {
        std::this_thread::sleep_for(kPause);
        state = look(file);
    }
    return state;
}

} // namespace kelconf::cli
