#include "bare_store.h"

#include "qlibc/use_qlibc.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <cstdio>

namespace bench {

namespace {

bool execute(sqlite3* database, const char* sql) {
    return sqlite3_exec(database, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool update(sqlite3* database, const char* name, const char* value) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database, "UPDATE CONFIG set VALUE = ? where NAME=?;", -1, &statement,
                       nullptr);
    sqlite3_bind_text(statement, 1, value, -1, SQLITE_STATIC);
    sqlite3_bind_text(statement, 2, name, -1, SQLITE_STATIC);
    const bool done = sqlite3_step(statement) == SQLITE_DONE && sqlite3_changes(database) == 1;
    sqlite3_finalize(statement);
    return done;
}

bool writeMark() {
    constexpr off_t kChangeCounterAt = 24;
    std::array<unsigned char, 4> counter{};
    const int file = open(kLiveDatabase, O_RDONLY | O_CLOEXEC);
    const bool known = pread(file, counter.data(), counter.size(), kChangeCounterAt) == 4;
    close(file);
    std::array<char, 12> text{};
    std::snprintf(text.data(), text.size(), "%010u\n",
                  static_cast<unsigned>(counter[0] << 24U | counter[1] << 16U | counter[2] << 8U |
                                        counter[3]));
    const int seal = open(kLiveSeal, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const bool written = pwrite(seal, text.data(), text.size() - 1, 0) == 11;
    close(seal);
    return known && written;
}

} // namespace

bool bareDigest() {
    std::array<unsigned char, 16> digest{};
    if (!qhashmd5_file(kLiveDatabase, 0, 0, digest.data())) {
        return false;
    }
    const int sidecar = open(kLiveSidecar, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const bool written = write(sidecar, digest.data(), digest.size()) == 16;
    const bool flushed = fdatasync(sidecar) == 0;
    close(sidecar);
    return written && flushed;
}

bool bareSet(const char* name, const char* value, bool mark) {
    sqlite3* database = nullptr;
    const bool stored = sqlite3_open(kLiveDatabase, &database) == SQLITE_OK &&
                        execute(database, "PRAGMA synchronous = NORMAL") &&
                        execute(database, "BEGIN TRANSACTION") && update(database, name, value) &&
                        execute(database, "END TRANSACTION");
    sqlite3_close(database);
    const bool sealed = bareDigest() && (!mark || writeMark());
    sync();
    return stored && sealed;
}

} // namespace bench
