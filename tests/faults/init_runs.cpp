#include "faults/init_runs.h"

#include "paths.h"

#include <fcntl.h>
#include <md5.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

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
constexpr unsigned kPatienceSeconds = 60;
// All rows, and last what tells whether the file is whole and compacted.
constexpr const char* kContent =
    "SELECT rowid,* FROM CONFIGDEFAULT UNION ALL SELECT NULL, page_count, freelist_count, "
    "integrity_check, '', '', '', '' FROM pragma_page_count, pragma_freelist_count, "
    "pragma_integrity_check";

SqlRows contentOf(const Flash& files, bool database_alone) {
    const std::string dir = "/tmp/reading";
    fs::remove_all(dir);
    fs::create_directory(dir);
    for (const auto& [name, content] : files) {
        if (!database_alone || name == "default.db") {
            writeFile(dir + "/" + name, content);
        }
    }
    return sql(dir + "/default.db", kContent);
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
    if (database == files.end() || sidecar == files.end()) {
        return false;
    }
    const std::string& content = database->second;
    MD5_CTX md5;
    MD5Init(&md5);
    MD5Update(&md5, reinterpret_cast<const std::uint8_t*>(content.data()), content.size());
    std::string digest(MD5_DIGEST_LENGTH, '\0');
    MD5Final(reinterpret_cast<std::uint8_t*>(digest.data()), &md5);
    return sidecar->second.starts_with(digest);
}

bool sealed(const Flash& files) {
    return files.size() == 2 && sealMatches(files);
}

InitRun runInit(const std::vector<std::string>& environment) {
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(kPatienceSeconds); // stays set in the program
        constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
        dup2(open(kOut, kFlags, 0644), STDOUT_FILENO);
        dup2(open(kErr, kFlags, 0644), STDERR_FILENO);
        for (const std::string& variable : environment) {
            const std::size_t equals = variable.find('=');
            setenv(variable.substr(0, equals).c_str(), variable.c_str() + equals + 1, 1);
        }
        execl(KELCONF_INIT, KELCONF_INIT, nullptr);
        _exit(127);
    }
    int raw = 0;
    rusage usage{};
    if (wait4(pid, &raw, 0, &usage) != pid) {
        throw std::runtime_error("cannot run " KELCONF_INIT);
    }
    InitRun run;
    run.killed = WIFSIGNALED(raw) && WTERMSIG(raw) == SIGKILL;
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
    auto environment = underFault();
    environment.push_back(std::string("KELCONF_FAULT_TRACE=") + kTrace);
    runInit(environment);
    std::vector<StorageCall> calls;
    std::istringstream lines(readFile(kTrace));
    StorageCall call{};
    while (lines >> call.number >> call.kind >> call.path) {
        calls.push_back(call);
    }
    return calls;
}

bool isModifying(const StorageCall& call) {
    return call.kind == "create" || call.kind == "write" || call.kind == "truncate" ||
           call.kind == "remove" || call.kind == "sync";
}

Reference::Reference() {
    restoreFlash({});
    runInit();
    files_ = readFlash();
    content_ = contentOf(files_, true);
    if (!sealed(files_) || content_.size() < 2 || content_.back()[2] != "0" ||
        content_.back()[3] != "ok") {
        throw std::runtime_error("an undisturbed build is not right");
    }
}

std::string Reference::wrongWith(const Flash& files) const {
    if (files == files_) {
        return {};
    }
    try {
        if (contentOf(files, true) != content_) {
            return "rows differ, damaged or not compacted";
        }
        return contentOf(files, false) == content_ ? "" : "a journal rolls in";
    } catch (const std::exception& failure) {
        return failure.what();
    }
}

} // namespace kelconf::test
