#include "support/terminal.h"

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace kelconf::test {

namespace {

constexpr int kDeadline = 60'000; // ms

[[noreturn]] void runChild(const std::vector<std::string>& command,
                           const std::vector<std::string>& variables) {
    termios modes{};
    tcgetattr(STDIN_FILENO, &modes);
    modes.c_oflag &= ~static_cast<tcflag_t>(ONLCR);
    tcsetattr(STDIN_FILENO, TCSANOW, &modes);
    unsetenv("NO_COLOR");
    setenv("TERM", "xterm", 1);
    std::vector<std::string> texts = variables;
    for (std::string& variable : texts) {
        putenv(variable.data());
    }
    std::vector<std::string> words = command;
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

} // namespace

Terminal::Terminal(const std::vector<std::string>& command,
                   const std::vector<std::string>& variables) {
    const winsize size{24, 80, 0, 0};
    int master = -1;
    process_ = forkpty(&master, nullptr, nullptr, &size);
    if (process_ < 0) {
        throw std::runtime_error("no pseudo-terminal");
    }
    if (process_ == 0) {
        runChild(command, variables);
    }
    master_ = Fd{master};
}

Terminal::~Terminal() {
    if (process_ > 0) {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
}

void Terminal::type(std::string_view keys) const {
    if (write(master_.get(), keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
        throw std::runtime_error("cannot type");
    }
}

bool Terminal::readMore() {
    pollfd wanted{master_.get(), POLLIN, 0};
    if (poll(&wanted, 1, kDeadline) != 1) {
        throw std::runtime_error("nothing more was shown after: " + shown_);
    }
    std::array<char, 4096> piece{};
    const ssize_t length = read(master_.get(), piece.data(), piece.size());
    if (length <= 0) {
        return false; // EIO: the last descriptor of the other side was closed
    }
    shown_.append(piece.data(), static_cast<std::size_t>(length));
    return true;
}

void Terminal::await(std::string_view text) {
    std::size_t at = 0;
    while ((at = shown_.find(text, found_)) == std::string::npos) {
        if (!readMore()) {
            throw std::runtime_error("ended without \"" + std::string{text} + "\": " + shown_);
        }
    }
    found_ = at + text.size();
}

int Terminal::awaitEnd() {
    while (readMore()) {
    }
    int status = 0;
    if (waitpid(std::exchange(process_, -1), &status, 0) < 0) {
        throw std::runtime_error("no child");
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace kelconf::test
