// Prints changes as they come, beside other work of its loop: watch [PREFIX...].
// Ends when standard input ends.
#include <kelbus.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>

namespace {

struct CloseWatch {
    void operator()(kelbus_watch* watch) const noexcept { kelbus_watch_close(watch); }
};
using Watch = std::unique_ptr<kelbus_watch, CloseWatch>;

Watch openWatch(int count, char** prefixes) {
    kelbus_watch* opened = nullptr;
    const kelbus_error error =
        kelbus_watch_open(&opened, prefixes, static_cast<std::size_t>(count));
    if (error != KELBUS_OK) {
        std::fprintf(stderr, "watch: %s\n", kelbus_strerror(error));
    }
    return Watch{opened};
}

// The descriptor tells of new arrivals only, so all that waits is taken.
void printChanges(kelbus_watch* watch) {
    kelbus_change change{};
    kelbus_error error = KELBUS_OK;
    while ((error = kelbus_watch_next(watch, &change, 0)) != KELBUS_TIMEOUT) {
        if (error == KELBUS_OK) {
            std::printf("%s: %s -> %s\n", change.name, change.prev_value, change.value);
        } else if (error != KELBUS_BROKEN_REPLY) {
            return;
        }
    }
    std::fflush(stdout);
}

bool inputEnded() {
    std::array<char, 256> ignored{};
    return read(STDIN_FILENO, ignored.data(), ignored.size()) <= 0;
}

} // namespace

int main(int argc, char** argv) {
    const Watch watch = openWatch(argc - 1, argv + 1);
    if (!watch) {
        return 1;
    }
    std::array<pollfd, 2> sources{
        {{kelbus_watch_fd(watch.get()), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    std::puts("watching");
    do {
        printChanges(watch.get());
        poll(sources.data(), sources.size(), -1);
    } while (sources[1].revents == 0 || !inputEnded());
    return 0;
}
