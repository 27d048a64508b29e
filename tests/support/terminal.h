// A program at a terminal: a child process behind a pseudo-terminal of 80 columns, TERM=xterm.
// What it shows stands here as it was written (line feeds stay line feeds), keys typed included
// where the program has them echoed. Waits have a deadline of a minute and throw
// std::runtime_error with what was shown. One thread.
#pragma once

#include "base/fd.h"

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace kelconf::test {

class Terminal {
  public:
    // `variables`: "NAME=VALUE", on top of the environment; NO_COLOR is taken out of that.
    explicit Terminal(const std::vector<std::string>& command,
                      const std::vector<std::string>& variables = {});
    ~Terminal(); // kills what still runs
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
    Terminal(Terminal&&) = delete;
    Terminal& operator=(Terminal&&) = delete;

    // "\n" is the enter key, "\x03" Ctrl-C, "\t" the tabulator.
    void type(std::string_view keys) const;
    // Waits until `text` is shown after what earlier waits have found.
    void await(std::string_view text);
    // Waits for the end: exit status, or 128 + the number of the signal.
    int awaitEnd();
    // Everything shown so far.
    [[nodiscard]] const std::string& shown() const { return shown_; }

  private:
    bool readMore(); // false at the end

    Fd master_;
    pid_t process_ = -1;
    std::string shown_;
    std::size_t found_ = 0; // end of the last text that was waited for
};

} // namespace kelconf::test
