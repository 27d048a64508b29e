#include "servers.h"

#include "bare_store.h"
#include "bench_clients.h"

#include <fcntl.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>

namespace bench {

namespace {

namespace fs = std::filesystem;

constexpr const char* kTree = "/etc/neutral_tree.xml";
constexpr std::array kDirectories{"/mnt/nand/conf", "/mnt/backup/conf"};

pid_t spawn(const std::vector<std::string>& command) {
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (const std::string& argument : command) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions{};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    const int failed = posix_spawnp(&child, argv.front(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
        giveUp("cannot start " + command.front());
    }
    return child;
}

std::string contentOf(const std::string& path) {
    std::string text;
    std::getline(std::ifstream(path), text, '\0');
    return text;
}

// A database as the service stores it, beside the place where it is used.
void makeDatabase(const std::string& path, long count) {
    sqlite3* database = nullptr;
    sqlite3_open(path.c_str(), &database);
    sqlite3_exec(database,
                 "CREATE TABLE CONFIG( NAME  TEXT  PRIMARY KEY  ,VALUE TEXT               ,TYPE  "
                 "TEXT           );BEGIN",
                 nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(database, "INSERT INTO CONFIG VALUES (?,?,'string')", -1, &insert, nullptr);
    long number = 0;
    for (const std::string& name : parameterNames(count)) {
        const std::string value = "value " + std::to_string(number++);
        sqlite3_bind_text(insert, 1, name.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 2, value.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    const bool made =
        sqlite3_exec(database, "COMMIT;VACUUM", nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(database);
    if (!made) {
        giveUp("cannot make a database");
    }
}

void writeTree() {
    fs::remove(kTree);
    std::ofstream(kTree) << "<parameters><camera type=\"trunk\"><node_0 type=\"branch\">"
                            "<stream type=\"branch\"><parameter_0 type=\"string\">value 0"
                            "</parameter_0></stream></node_0></camera></parameters>\n";
}

} // namespace

Server::Server(const std::vector<std::string>& command) : process_(spawn(command)) {}

Server::~Server() {
    const pid_t traced = child(); // a tracer ends with what it traces
    kill(traced != 0 ? traced : process_, SIGTERM);
    waitpid(process_, nullptr, 0);
}

double Server::processorTime() const {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(process_, &clock) != 0 || clock_gettime(clock, &time) != 0) {
        giveUp("a server has ended");
    }
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

long Server::residentKiB() const {
    const std::string status = contentOf("/proc/" + std::to_string(process_) + "/status");
    const std::size_t at = status.find("VmRSS:");
    return at == std::string::npos ? 0 : std::strtol(status.c_str() + at + 6, nullptr, 10);
}

pid_t Server::child() const {
    const std::string id = std::to_string(process_);
    const std::string children = contentOf("/proc/" + id + "/task/" + id + "/children");
    return static_cast<pid_t>(std::strtol(children.c_str(), nullptr, 10));
}

pid_t Server::threadOf(pid_t process, const std::string& name) {
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        if (contentOf(task.path() / "comm") == name + "\n") {
            return static_cast<pid_t>(std::strtol(task.path().filename().c_str(), nullptr, 10));
        }
    }
    return 0;
}

void runToEnd(const std::vector<std::string>& command) {
    int status = -1;
    if (waitpid(spawn(command), &status, 0) < 0 || status != 0) {
        giveUp("failed: " + command.front());
    }
}

std::vector<std::string> parameterNames(long count) {
    std::vector<std::string> names;
    names.reserve(static_cast<std::size_t>(count));
    for (long i = 0; i + 1 < count; ++i) {
        names.push_back("camera.node_" + std::to_string(i / 20) + ".stream.parameter_" +
                        std::to_string(i % 20));
    }
    names.emplace_back(kUnloggedName);
    return names;
}

void installDatabase(long count) {
    fs::create_directories(kWork);
    const std::string made = std::string{kWork} + "/" + std::to_string(count) + ".db";
    if (!fs::exists(made)) {
        makeDatabase(made, count);
    }
    for (const char* directory : kDirectories) {
        for (const auto& entry : fs::directory_iterator(directory)) {
            fs::remove_all(entry.path());
        }
    }
    writeTree();
    fs::copy_file(made, kLiveDatabase);
    if (!bareDigest()) {
        giveUp("cannot write the sidecar");
    }
    sync(); // nothing of an earlier round waits to be written
}

} // namespace bench
