// kelconfd as a child process of a test, inside a device root.
#pragma once

#include "base/fd.h"
#include "daemon/bus_client.h"
#include "support/device_log.h"
#include "support/files.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/un.h>

#include <csignal>
#include <cstring>

namespace kelconf::test {

inline constexpr int kDeadline = 60'000; // ms

// The address of a path, or of an abstract name that begins with '@'.
inline std::pair<sockaddr_un, socklen_t> socketAddress(std::string_view text) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::memcpy(name.sun_path, text.data(), text.size());
    name.sun_path[0] = text[0] == '@' ? '\0' : '/';
    return {name, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size())};
}

// A service manager at that address, to which datagrams come.
inline Fd listenAt(const std::string& address) {
    Fd in{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    const auto [name, size] = socketAddress(address);
    if (bind(in.get(), reinterpret_cast<const sockaddr*>(&name), size) != 0) {
        throw std::runtime_error("cannot listen at " + address);
    }
    return in;
}

// What has come; empty when nothing has.
inline std::string received(const Fd& in) {
    std::string text(64, '\0');
    const ssize_t got = recv(in.get(), text.data(), text.size(), MSG_DONTWAIT);
    return text.substr(0, got < 0 ? 0 : static_cast<std::size_t>(got));
}

// Starts with the object and is killed with it. Whether it is ready is learnt from the notification
// that a service manager would get, never from waiting a while. A hang ends the test program: every
// wait has a deadline of a minute.
class Daemon {
  public:
    // `environment`: "NAME=VALUE", in addition to what a boot script would start it with.
    explicit Daemon(std::vector<std::string> environment = {}) {
        const std::string program = std::string(std::getenv("KELCONF_BIN")) + "/kelconfd";
        const std::string address = "/tmp/manager-" + std::to_string(++started_);
        notifications_ = listenAt(address);
        environment.push_back("NOTIFY_SOCKET=" + address);
        process_ = fork();
        if (process_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (std::string& variable : environment) {
                putenv(variable.data());
            }
            execl(program.c_str(), "kelconfd", static_cast<char*>(nullptr));
            _exit(127);
        }
        handle_ = Fd{static_cast<int>(syscall(SYS_pidfd_open, process_, 0))};
        if (process_ < 0 || !handle_) {
            throw std::runtime_error("cannot start kelconfd");
        }
    }
    ~Daemon() { killNow(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    Daemon(Daemon&&) = delete;
    Daemon& operator=(Daemon&&) = delete;

    // True when it serves; false when it has ended instead.
    bool awaitReady() const {
        pollfd sources[] = {{notifications_.get(), POLLIN, 0}, {handle_.get(), POLLIN, 0}};
        if (poll(sources, 2, kDeadline) <= 0) {
            throw std::runtime_error("kelconfd is not ready in time");
        }
        return received(notifications_).starts_with("READY=1");
    }
    // What it tells its service manager next.
    [[nodiscard]] std::string awaitWord() const {
        pollfd source{notifications_.get(), POLLIN, 0};
        return poll(&source, 1, kDeadline) > 0 ? received(notifications_) : "nothing in time";
    }
    // False for each thing that it has told before.
    [[nodiscard]] bool saidNothing() const { return received(notifications_).empty(); }
    void signal(int number) const {
        if (process_ > 0) { // -1 would be everybody
            ::kill(process_, number);
        }
    }
    // Exit status, or 128 + the number of the signal that ended it.
    int awaitEnd() {
        if (process_ > 0) {
            pollfd source{handle_.get(), POLLIN, 0};
            if (poll(&source, 1, kDeadline) <= 0) {
                throw std::runtime_error("kelconfd does not end in time");
            }
            int raw = 0;
            waitpid(std::exchange(process_, -1), &raw, 0);
            status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        }
        return status_;
    }
    int stop() {
        signal(SIGTERM);
        return awaitEnd();
    }
    void killNow() {
        signal(SIGKILL);
        awaitEnd();
    }
    [[nodiscard]] pid_t process() const { return process_; }

  private:
    static inline int started_ = 0;
    Fd notifications_;
    Fd handle_;
    pid_t process_ = -1; // or once it was waited for
    int status_ = -1;
};

// The environment that puts the fault library (tools/fault_shim.cpp) before its storage, with that
// setting.
inline std::vector<std::string> faults(const std::string& setting) {
    return {"LD_PRELOAD=" + std::string(std::getenv("KELCONF_BUILD")) + "/libexec/fault_shim.so",
            "ASAN_OPTIONS=verify_asan_link_order=0", "KELCONF_FAULT=" + setting};
}

// A clean device: no stored files, no bus directory, one tree.
inline void resetDevice(const std::string& neutral_tree) {
    resetDevice();
    std::filesystem::remove_all("/tmp/kelbus");
    writeFile("/etc/neutral_tree.xml", neutral_tree);
}

// A tree of one trunk `private` with the given elements inside.
inline std::string treeOf(const std::string& elements) {
    return "<?xml version=\"1.0\"?>\n<tree><private type=\"trunk\">" + elements +
           "</private></tree>\n";
}

// One leaf.
inline std::string leaf(const std::string& name, const std::string& type,
                        const std::string& value) {
    return "<" + name + " type=\"" + type + "\">" + value + "</" + name + ">";
}

// The service has run on what is there, holds these values, and has been stopped.
inline void runOnce(const std::vector<Parameter>& values = {}) {
    Daemon daemon;
    if (!daemon.awaitReady() || !set("SET_ACTION_DIRECT", values) || daemon.stop() != 0) {
        throw std::runtime_error("kelconfd does not run");
    }
}

inline std::string storedIn(const char* path, const std::string& name) {
    const SqlRows rows = sql(path, "SELECT VALUE FROM CONFIG WHERE NAME='" + name + "'");
    return rows.empty() ? "(none)" : rows[0][0];
}

// What was logged to the console since `log` began or was asked last, as soon as `text` is among
// it; a test that waits for longer than a minute fails.
inline std::string loggedUntil(DeviceLog& log, const std::string& text) {
    std::string all;
    for (int waits = 0; all.find(text) == std::string::npos; ++waits) {
        if (waits == kDeadline / 20) {
            throw std::runtime_error("not logged in time: " + text);
        }
        usleep(20'000); // the sinks are asked again, nothing is decided by it
        all += log.take().console;
    }
    return all;
}

} // namespace kelconf::test
