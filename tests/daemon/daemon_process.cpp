#include "daemon/daemon_process.h"

#include "support/files.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kelconf::test {

namespace {

constexpr int kDeadline = 60'000; // ms
constexpr const char* kNotifyPath = "/tmp/notify";

Fd listenForNotifications() {
    std::filesystem::remove(kNotifyPath);
    Fd in{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::strncpy(name.sun_path, kNotifyPath, sizeof name.sun_path - 1);
    if (bind(in.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
        throw std::runtime_error("cannot listen for notifications");
    }
    return in;
}

[[noreturn]] void runDaemon(const std::vector<std::string>& environment) {
    for (const std::string& setting : environment) {
        const std::size_t equals = setting.find('=');
        setenv(setting.substr(0, equals).c_str(), setting.c_str() + equals + 1, 1);
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const char* bin = std::getenv("KELCONF_BIN");
    const std::string program = std::string(bin == nullptr ? "." : bin) + "/kelconfd";
    setenv("NOTIFY_SOCKET", kNotifyPath, 1);
    execl(program.c_str(), "kelconfd", static_cast<char*>(nullptr));
    _exit(127);
}

} // namespace

Daemon::Daemon(const std::vector<std::string>& environment)
    : notifications_(listenForNotifications()) {
    process_ = fork();
    if (process_ == 0) {
        runDaemon(environment);
    }
    handle_ = Fd{static_cast<int>(syscall(SYS_pidfd_open, process_, 0))};
    if (process_ < 0 || !handle_) {
        throw std::runtime_error("cannot start kelconfd");
    }
}

Daemon::~Daemon() {
    if (process_ > 0) {
        ::kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
}

bool Daemon::awaitReady() {
    std::array<pollfd, 2> sources{{{notifications_.get(), POLLIN, 0}, {handle_.get(), POLLIN, 0}}};
    if (poll(sources.data(), sources.size(), kDeadline) <= 0) {
        throw std::runtime_error("kelconfd is not ready in time");
    }
    std::array<char, 64> text{};
    const ssize_t got = recv(notifications_.get(), text.data(), text.size() - 1, MSG_DONTWAIT);
    return got > 0 && std::strstr(text.data(), "READY=1") != nullptr;
}

void Daemon::signal(int number) const {
    ::kill(process_, number);
}

int Daemon::awaitEnd() {
    if (process_ < 0) {
        return status_;
    }
    pollfd source{handle_.get(), POLLIN, 0};
    if (poll(&source, 1, kDeadline) <= 0) {
        throw std::runtime_error("kelconfd does not end in time");
    }
    int raw = 0;
    waitpid(process_, &raw, 0);
    process_ = -1;
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return status_;
}

int Daemon::stop() {
    signal(SIGTERM);
    return awaitEnd();
}

void Daemon::killNow() {
    signal(SIGKILL);
    awaitEnd();
}

std::vector<std::string> faults(const std::string& setting) {
    const char* build = std::getenv("KELCONF_BUILD");
    return {std::string("LD_PRELOAD=") + (build == nullptr ? "." : build) + "/tests/fault_shim.so",
            "ASAN_OPTIONS=verify_asan_link_order=0", "KELCONF_FAULT=" + setting};
}

void resetDevice(const std::string& neutral_tree) {
    resetDevice();
    std::filesystem::remove_all("/tmp/kelbus");
    writeFile("/etc/neutral_tree.xml", neutral_tree);
}

std::string treeOf(const std::string& elements) {
    return "<?xml version=\"1.0\"?>\n<tree><private type=\"trunk\">" + elements +
           "</private></tree>\n";
}

std::string leaf(const std::string& name, const std::string& type, const std::string& value) {
    return "<" + name + " type=\"" + type + "\">" + value + "</" + name + ">";
}

std::string loggedUntil(DeviceLog& log, const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds{kDeadline};
    std::string all;
    while (all.find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("not logged in time: " + text);
        }
        usleep(20'000); // the sinks are asked again, nothing is decided by it
        all += log.take().console;
    }
    return all;
}

std::string contentOf(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

} // namespace kelconf::test
