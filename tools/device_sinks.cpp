// device-sinks LOGDIR SOCKET -- COMMAND [ARGUMENT...]
//
// Runs COMMAND with the two log sinks of a device and records what arrives in them until it ends:
//  - a console, the slave of a new pseudo terminal in raw mode: LOGDIR/console gets its bytes as
//    they were written;
//  - a system log, the datagram socket SOCKET: LOGDIR/syslog gets one line for each datagram.
//    Bytes below 0x20 stand there as \n or \xHH and a backslash as \\, so a record is one line.
// Both files are appended to. Of COMMAND's arguments, the first that is "{console}" becomes the
// path of the console device and the first that is "{status}" the number of a descriptor that
// bubblewrap's --json-status-fd writes to.
//
// scripts/device runs bubblewrap under it. SIGTERM, SIGINT, SIGHUP and SIGQUIT go on to the
// command inside. Exit status: the command's (128 + signal when one killed it), 2 for wrong
// usage, 125 when the sinks or the root could not be set up or a record could not be stored.
#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr int kUsage = 2;
constexpr int kCannotRun = 125;

constexpr const char* kCure =
    "device-sinks: the device root could not be set up; bubblewrap's own message stands above.\n"
    "  Run as an ordinary user, it needs user namespaces. Where they are denied, either\n"
    "    sudo sysctl kernel.unprivileged_userns_clone=1             (older Debian kernels)\n"
    "    sudo sysctl user.max_user_namespaces=15000                 (limit set to 0)\n"
    "    sudo sysctl kernel.apparmor_restrict_unprivileged_userns=0 (denied by AppArmor)\n"
    "  or run as root. In a container, allow it to mount (for example --privileged). In a plain\n"
    "  chroot (\"Failed to make / slave\") its directory has to be a mount point: leave it, run\n"
    "    mount --rbind DIR DIR\n"
    "  and enter it anew.\n";

// Owns a file descriptor; -1 is empty.
class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    [[nodiscard]] int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) {
            close(std::exchange(fd_, -1));
        }
    }

  private:
    int fd_;
};

[[noreturn]] void die(std::string_view doing) {
    const int error = errno;
    std::fprintf(stderr, "device-sinks: %.*s: %s\n", static_cast<int>(doing.size()), doing.data(),
                 std::strerror(error)); // NOLINT(concurrency-mt-unsafe): one thread
    std::exit(kCannotRun);
}

int checked(int result, std::string_view doing) {
    if (result < 0) {
        die(doing);
    }
    return result;
}

// The pseudo terminal. The slave is held open so that the master survives a moment without
// writers.
struct Console {
    Fd master;
    Fd slave;
    std::string path;
};

Console openConsole() {
    Console console;
    console.master = Fd(checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "opening a pty"));
    const int master = console.master.get();
    checked(grantpt(master), "granting the pty");
    checked(unlockpt(master), "unlocking the pty");
    checked(fcntl(master, F_SETFL, O_NONBLOCK), "making the pty non-blocking");
    std::array<char, 128> name{};
    if (ptsname_r(master, name.data(), name.size()) != 0) {
        die("naming the pty");
    }
    console.path = name.data();
    console.slave = Fd(checked(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC), console.path));
    termios mode{};
    checked(tcgetattr(console.slave.get(), &mode), "reading the mode of the pty");
    cfmakeraw(&mode);
    checked(tcsetattr(console.slave.get(), TCSANOW, &mode), "setting the pty to raw mode");
    return console;
}

// The socket of the system log; its name goes with it.
class LogSocket {
  public:
    explicit LogSocket(std::string path) : path_(std::move(path)) {
        fd_ = Fd(checked(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket"));
        const int room = 8 << 20;
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        unlink(path_.c_str());
        // Through the descriptor of its directory, a path of any length fits sun_path.
        const size_t slash = path_.rfind('/');
        const std::string parent = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
        const Fd dir(checked(open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC), parent));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string_view leaf =
            std::string_view(path_).substr(path_.size() - leafSize(slash));
        const int length =
            std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%.*s",
                          dir.get(), static_cast<int>(leaf.size()), leaf.data());
        if (length < 0 || static_cast<size_t>(length) >= sizeof address.sun_path) {
            errno = ENAMETOOLONG;
            die(path_);
        }
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the socket interface
        const auto* generic = reinterpret_cast<const sockaddr*>(&address);
        checked(bind(fd_.get(), generic, sizeof address), path_);
    }
    LogSocket(const LogSocket&) = delete;
    LogSocket& operator=(const LogSocket&) = delete;
    LogSocket(LogSocket&&) = delete;
    LogSocket& operator=(LogSocket&&) = delete;
    ~LogSocket() { unlink(path_.c_str()); }
    [[nodiscard]] int get() const { return fd_.get(); }

  private:
    [[nodiscard]] size_t leafSize(size_t slash) const {
        return slash == std::string::npos ? path_.size() : path_.size() - slash - 1;
    }
    std::string path_;
    Fd fd_;
};

// A log file; remembers whether it lost anything.
struct LogFile {
    Fd fd;
    std::string path;
    bool lost = false;
};

LogFile openLog(const std::string& dir, const char* name) {
    std::string path = dir + "/" + name;
    Fd fd(checked(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644), path));
    return {std::move(fd), std::move(path)};
}

void append(LogFile& file, std::string_view bytes) {
    while (!bytes.empty() && !file.lost) {
        const ssize_t count = write(file.fd.get(), bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<size_t>(count));
        } else if (errno != EINTR) {
            std::perror(("device-sinks: " + file.path).c_str());
            file.lost = true;
        }
    }
}

std::string escaped(std::string_view record) {
    constexpr std::string_view kHex = "0123456789abcdef";
    std::string line;
    line.reserve(record.size() + 8);
    for (const char c : record) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            line += "\\\\";
        } else if (c == '\n') {
            line += "\\n";
        } else if (byte < 0x20) {
            line += {'\\', 'x', kHex[byte >> 4U], kHex[byte & 0xFU]};
        } else {
            line += c;
        }
    }
    return line;
}

void takeConsole(const Console& console, LogFile& log) {
    std::array<char, 65536> bytes{};
    ssize_t count = 0;
    while ((count = read(console.master.get(), bytes.data(), bytes.size())) > 0) {
        append(log, {bytes.data(), static_cast<size_t>(count)});
    }
}

void takeSyslog(const LogSocket& socket, LogFile& log) {
    std::string record;
    ssize_t size = 0;
    while ((size = recv(socket.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC)) >= 0) {
        record.resize(static_cast<size_t>(size));
        if (recv(socket.get(), record.data(), record.size(), 0) >= 0) {
            append(log, escaped(record) + "\n");
        }
    }
}

void substituteFirst(std::vector<std::string>& words, std::string_view mark, std::string value) {
    const auto found = std::find(words.begin(), words.end(), mark);
    if (found != words.end()) {
        *found = std::move(value);
    }
}

sigset_t handledSignals() {
    sigset_t set{};
    sigemptyset(&set);
    for (const int signal : {SIGCHLD, SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        sigaddset(&set, signal);
    }
    return set;
}

// Starts the command with the signal mask `mask`; every descriptor but `status` is
// close-on-exec.
pid_t spawn(const std::vector<std::string>& words, const sigset_t& mask) {
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str())); // NOLINT: execvp's signature
    }
    arguments.push_back(nullptr);
    const pid_t child = checked(fork(), "fork");
    if (child == 0) {
        sigprocmask(SIG_SETMASK, &mask, nullptr);
        execvp(arguments.front(), arguments.data());
        std::perror(("device-sinks: " + words.front()).c_str());
        _exit(errno == ENOENT ? 127 : 126);
    }
    return child;
}

// What bubblewrap reports of itself: one JSON object with "child-pid" once the root's process 1
// exists, and one with "exit-code" at the end when the command was started at all.
std::optional<int> statusNumber(const std::string& report, const char* key) {
    const size_t at = report.find(key);
    const size_t colon = at == std::string::npos ? at : report.find(':', at);
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    return static_cast<int>(std::strtol(report.c_str() + colon + 1, nullptr, 10));
}

void takeStatus(const Fd& pipe, std::string& report) {
    std::array<char, 512> bytes{};
    ssize_t count = 0;
    while ((count = read(pipe.get(), bytes.data(), bytes.size())) > 0) {
        report.append(bytes.data(), static_cast<size_t>(count));
    }
}

// Passes a signal on. In a session of its own the whole group of the root's process 1 gets it,
// as from a terminal; otherwise bubblewrap does, and takes the root down with it.
void forward(const signalfd_siginfo& info, pid_t child, const std::string& report) {
    if (info.ssi_code == SI_KERNEL) {
        return; // from the terminal, which has sent it to the child as well
    }
    const pid_t inner = statusNumber(report, "\"child-pid\"").value_or(-1);
    const pid_t group = inner > 0 ? getpgid(inner) : -1;
    kill(group > 0 && group != getpgrp() ? -group : child, static_cast<int>(info.ssi_signo));
}

// Reads one signal; the child's wait status once it has ended.
std::optional<int> takeSignal(const Fd& signals, pid_t child, const std::string& report) {
    signalfd_siginfo info{};
    if (read(signals.get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return std::nullopt;
    }
    if (info.ssi_signo != SIGCHLD) {
        forward(info, child, report);
        return std::nullopt;
    }
    int status = 0;
    const pid_t ended = checked(waitpid(child, &status, WNOHANG), "waiting for the command");
    return ended == child ? std::optional(status) : std::nullopt;
}

int exitStatus(int status, bool root_failed, bool lost) {
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    if (root_failed) {
        std::fputs(kCure, stderr);
        return kCannotRun;
    }
    const int code = WEXITSTATUS(status);
    return code == 0 && lost ? kCannotRun : code;
}

int run(const std::string& dir, const std::string& socket_path, std::vector<std::string> words) {
    const Console console = openConsole();
    const LogSocket socket(socket_path);
    LogFile console_log = openLog(dir, "console");
    LogFile syslog_log = openLog(dir, "syslog");
    std::array<int, 2> ends{};
    checked(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), "pipe");
    const Fd status_in(ends[0]);
    Fd status_out(ends[1]);
    checked(fcntl(status_out.get(), F_SETFD, 0), "pipe");
    const bool reports = std::find(words.begin(), words.end(), "{status}") != words.end();
    substituteFirst(words, "{console}", console.path);
    substituteFirst(words, "{status}", std::to_string(status_out.get()));

    const sigset_t handled = handledSignals();
    sigset_t former{};
    std::signal(SIGCHLD, SIG_DFL); // where it is inherited as ignored, no status would be kept
    sigprocmask(SIG_BLOCK, &handled, &former);
    const Fd signals(checked(signalfd(-1, &handled, SFD_CLOEXEC), "signalfd"));
    const pid_t child = spawn(words, former);
    status_out.reset();

    std::string report;
    std::optional<int> status;
    std::array<pollfd, 4> events{{{signals.get(), POLLIN, 0},
                                  {console.master.get(), POLLIN, 0},
                                  {socket.get(), POLLIN, 0},
                                  {status_in.get(), POLLIN, 0}}};
    while (!status) {
        if (poll(events.data(), events.size(), -1) < 0) {
            die("poll");
        }
        takeStatus(status_in, report);
        if ((events[3].revents & POLLHUP) != 0) {
            events[3].fd = -1; // everyone who could report has ended
        }
        if ((events[0].revents & POLLIN) != 0) {
            status = takeSignal(signals, child, report);
        }
        // Also the last time round: what the command left behind has arrived by now.
        takeConsole(console, console_log);
        takeSyslog(socket, syslog_log);
    }
    takeStatus(status_in, report);
    const bool root_failed = reports && !statusNumber(report, "\"exit-code\"");
    return exitStatus(*status, root_failed, console_log.lost || syslog_log.lost);
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv, argv + argc);
    if (words.size() < 5 || words[3] != "--") {
        std::fputs("usage: device-sinks LOGDIR SOCKET -- COMMAND [ARGUMENT...]\n", stderr);
        return kUsage;
    }
    return run(words[1], words[2], {words.begin() + 4, words.end()});
}
