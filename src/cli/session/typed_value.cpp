#include "cli/session/typed_value.h"

#include "cli/output/output.h"
#include "cli/output/shown_text.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>

namespace kelconf::cli {

namespace {

volatile std::sig_atomic_t ending_signal = 0;

void noteSignal(int number) {
    ending_signal = number;
}

constexpr std::array kEndingSignals{SIGINT, SIGTERM, SIGHUP};

// Holds the signals that end the process back but while waiting for a key, so that none slips in
// before the wait, and the terminal is set right before they have their way.
class HeldSignals {
  public:
    HeldSignals() {
        sigset_t held;
        sigemptyset(&held);
        struct sigaction action {};
        action.sa_handler = noteSignal;
        for (const int number : kEndingSignals) {
            sigaddset(&held, number);
            sigaction(number, &action, nullptr);
        }
        sigprocmask(SIG_BLOCK, &held, &before_);
    }
    ~HeldSignals() {
        for (const int number : kEndingSignals) {
            std::signal(number, SIG_DFL);
        }
        sigprocmask(SIG_SETMASK, &before_, nullptr);
    }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;
    HeldSignals(HeldSignals&&) = delete;
    HeldSignals& operator=(HeldSignals&&) = delete;

    // False when a signal came instead.
    [[nodiscard]] bool awaitInput() const {
        pollfd wanted{STDIN_FILENO, POLLIN, 0};
        return ppoll(&wanted, 1, nullptr, &before_) == 1;
    }

  private:
    sigset_t before_{};
};

class EchoOff {
  public:
    EchoOff() {
        tcgetattr(STDIN_FILENO, &before_);
        termios hidden = before_;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    }
    ~EchoOff() { tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_); }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;
    EchoOff(EchoOff&&) = delete;
    EchoOff& operator=(EchoOff&&) = delete;

  private:
    termios before_{};
};

bool readLine(const HeldSignals& signals, std::string& line) {
    char c = 0;
    while (signals.awaitInput() && read(STDIN_FILENO, &c, 1) == 1) {
        if (c == '\n') {
            return true;
        }
        line += c;
    }
    return false;
}

} // namespace

bool readHiddenLine(const std::string& name, std::string& value) {
    bool complete = false;
    {
        const HeldSignals signals;
        const EchoOff hidden;
        toStandardError(shownText(name) + " (not shown): ");
        complete = readLine(signals, value);
        toStandardError("\n");
    }
    if (ending_signal != 0) {
        std::raise(ending_signal);
    }
    if (!complete) {
        complain("no value was typed");
    }
    return complete;
}

} // namespace kelconf::cli
