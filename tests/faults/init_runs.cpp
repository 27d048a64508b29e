#include "faults/init_runs.h"

#include "paths.h"

#include <fcntl.h>
#include <md5.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <sstream>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kConf = "/mnt/nand/conf";
constexpr const char* kTrace = "/tmp/storage-calls";
constexpr const char* kOut = "/tmp/init.out";
constexpr const char* kErr = "/tmp/init.err";
constexpr int kPatienceMs = 60000;
constexpr const char* kAllRows = "SELECT rowid,* FROM CONFIGDEFAULT ORDER BY rowid";
constexpr const char* kPages = "SELECT page_count, freelist_count, integrity_check FROM "
                               "pragma_page_count, pragma_freelist_count, pragma_integrity_check";

std::string digestOf(const std::string& content) {
    MD5_CTX md5;
    MD5Init(&md5);
    MD5Update(&md5, reinterpret_cast<const std::uint8_t*>(content.data()), content.size());
    std::array<std::uint8_t, MD5_DIGEST_LENGTH> digest{};
    MD5Final(digest.data(), &md5);
    return {digest.begin(), digest.end()};
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

pid_t startInit(std::vector<std::string> environment) {
    for (char** variable = environ; *variable != nullptr; ++variable) {
        environment.emplace_back(*variable);
    }
    std::vector<std::string> arguments{KELCONF_INIT};
    posix_spawn_file_actions_t actions{};
    posix_spawn_file_actions_init(&actions);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, kOut, kFlags, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, kErr, kFlags, 0644);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, KELCONF_INIT, &actions, nullptr,
                                  pointersTo(arguments).data(), pointersTo(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::runtime_error("cannot start " KELCONF_INIT);
    }
    return pid;
}

// True when the process ended before the deadline; otherwise it is killed.
bool awaitEnd(pid_t pid) {
    pollfd end{static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
    if (end.fd < 0) {
        throw std::runtime_error("no descriptor of a process");
    }
    const bool ended = poll(&end, 1, kPatienceMs) == 1;
    if (!ended) {
        kill(pid, SIGKILL);
    }
    close(end.fd);
    return ended;
}

std::string copyForReading(const Flash& files, bool database_alone) {
    const std::string dir = "/tmp/reading";
    fs::remove_all(dir);
    fs::create_directory(dir);
    for (const auto& [name, content] : files) {
        if (!database_alone || name == "default.db") {
            writeFile(dir + "/" + name, content);
        }
    }
    return dir + "/default.db";
}

} // namespace

Flash readFlash() {
    Flash files;
    if (exists(kConf)) {
        for (const auto& entry : fs::directory_iterator(kConf)) {
            files[entry.path().filename()] =
                entry.is_regular_file() ? readFile(entry.path()) : "(no file)";
        }
    }
    return files;
}

void restoreFlash(const Flash& files) {
    fs::remove_all(kConf);
    fs::create_directories(kConf);
    for (const auto& [name, content] : files) {
        writeFile(std::string(kConf) + "/" + name, content);
    }
}

bool sealMatches(const Flash& files) {
    const auto database = files.find("default.db");
    const auto sidecar = files.find("default.db.md5");
    return database != files.end() && sidecar != files.end() &&
           sidecar->second.substr(0, MD5_DIGEST_LENGTH) == digestOf(database->second);
}

bool sealed(const Flash& files) {
    return files.size() == 2 && sealMatches(files);
}

InitRun runInit(const std::vector<std::string>& environment) {
    const pid_t pid = startInit(environment);
    InitRun run;
    run.timed_out = !awaitEnd(pid);
    int raw = 0;
    rusage usage{};
    if (wait4(pid, &raw, 0, &usage) != pid) {
        throw std::runtime_error("wait4 failed");
    }
    run.killed = WIFSIGNALED(raw) && WTERMSIG(raw) == SIGKILL && !run.timed_out;
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    run.out = readFile(kOut);
    run.err = readFile(kErr);
    run.peak_kib = usage.ru_maxrss;
    return run;
}

std::vector<std::string> underFault(const std::string& plan) {
    std::vector<std::string> environment{"LD_PRELOAD=" KELCONF_FAULT_SHIM};
#ifdef KELCONF_SANITIZED
    environment.emplace_back("ASAN_OPTIONS=verify_asan_link_order=0"); // the shim comes first
#endif
    if (!plan.empty()) {
        environment.push_back("KELCONF_FAULT=" + plan);
    }
    return environment;
}

std::vector<StorageCall> traceInit() {
    auto environment = underFault("");
    environment.push_back(std::string("KELCONF_FAULT_TRACE=") + kTrace);
    runInit(environment);
    std::vector<StorageCall> calls;
    std::istringstream lines(readFile(kTrace));
    StorageCall call{};
    while (lines >> call.number >> call.kind >> call.name >> call.path) {
        calls.push_back(call);
    }
    return calls;
}

bool isModifying(const StorageCall& call) {
    return call.kind == "create" || call.kind == "write" || call.kind == "truncate" ||
           call.kind == "remove" || call.kind == "sync" || call.kind == "owner";
}

Reference::Reference() {
    restoreFlash({});
    runInit();
    files_ = readFlash();
    const std::string copy = copyForReading(files_, true);
    rows_ = sql(copy, kAllRows);
    pages_ = sql(copy, kPages);
    if (!sealed(files_) || rows_.empty() || pages_.size() != 1 || pages_[0][1] != "0" ||
        pages_[0][2] != "ok") {
        throw std::runtime_error("an undisturbed build is not right");
    }
}

std::string Reference::wrongWith(const Flash& files) const {
    if (files == files_) {
        return {};
    }
    try {
        const std::string alone = copyForReading(files, true);
        if (sql(alone, kAllRows) != rows_) {
            return "rows differ";
        }
        if (sql(alone, kPages) != pages_) {
            return "damaged or not compacted";
        }
        return sql(copyForReading(files, false), kAllRows) == rows_ ? "" : "a journal rolls in";
    } catch (const std::exception& failure) {
        return failure.what();
    }
}

} // namespace kelconf::test
