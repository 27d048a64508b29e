// Starts the live store on the files that are there, up to the bus, once for each byte of its
// input: in a process of its own, which leaves what would be served in /tmp/powercut.values (a line
// for each name, one for its value) and what was logged in /tmp/powercut.log. Answers each with the
// wait status of that process.
#include "db/update_retries.h"
#include "live/live.h"
#include "log/keldebug.h"
#include "service/param_list.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <string>

// The files lie in memory: nothing is to be flushed, and the host's disks least of all.
extern "C" void sync() noexcept {}

namespace kelconf {

namespace {

std::string log_text;

[[noreturn]] void startHere() {
    alarm(30);          // s
    endUpdateRetries(); // nothing that fails on these files is better a second later
    LiveSource source = readyLiveStore([] { return false; });
    if (source.origin == LiveOrigin::kNone) {
        _exit(1);
    }
    connectLiveStore();
    loadLiveValues(std::move(source));
    std::string values;
    for (std::uint32_t i = 0; const ParamElement* element = paramElementAt(i); ++i) {
        values.append(element->name).append(1, '\n').append(element->value).append(1, '\n');
    }
    std::ofstream("/tmp/powercut.values") << values << std::flush;
    std::ofstream("/tmp/powercut.log") << log_text << std::flush;
    _exit(0);
}

} // namespace

// Takes the place of the library's: the log is part of what a start shows.
void keldebug(std::int32_t /*level*/, std::uint8_t /*destination*/, const char* format, ...) {
    std::array<char, 4096> text{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    log_text += text.data();
}

} // namespace kelconf

int main() {
    for (char request = 0; read(STDIN_FILENO, &request, 1) == 1;) {
        if (fork() == 0) {
            kelconf::startHere();
        }
        int status = -1;
        wait(&status);
        std::printf("%d\n", status);
        std::fflush(stdout);
    }
}
