#include "cli/typed_value.h"

#include "cli/output.h"
#include "cli/shown_text.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace kelconf::cli {

namespace {

volatile std::sig_atomic_t ending_signal = 0;

void noteSignal(int number) {
    ending_signal = number;
}

// Without SA_RESTART: reading ends, and the terminal is set right before the process goes.
void handleSignals(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(number, &action, nullptr);
    }
}

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

bool readLine(std::string& line) {
    char c = 0;
    ssize_t length = 0;
    while ((length = read(STDIN_FILENO, &c, 1)) == 1 && c != '\n') {
        line += c;
    }
    return length == 1;
}

} // namespace

bool readHiddenLine(const std::string& name, std::string& value) {
    bool complete = false;
    handleSignals(noteSignal);
    {
        const EchoOff hidden;
        toStandardError(shownText(name) + " (not shown): ");
        complete = readLine(value);
        toStandardError("\n");
    }
    handleSignals(SIG_DFL);
    if (ending_signal != 0) {
        std::raise(ending_signal);
    }
    if (!complete) {
        complain("no value was typed");
    }
    return complete;
}

} // namespace kelconf::cli
