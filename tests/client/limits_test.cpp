// libkelbus in a process that is at its own limits: an error, never the end of the process.
#include "daemon/daemon_process.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <kelbus.h>
#include <sys/resource.h>

#include <set>
#include <tuple>

namespace kelconf::test {
namespace {

kelbus_error openWatch() {
    kelbus_watch* watch = nullptr;
    const kelbus_error error = kelbus_watch_open(&watch, nullptr, 0);
    kelbus_watch_close(watch);
    return error;
}

kelbus_error getAndSet() {
    kelbus* client = nullptr;
    bool value = false;
    kelbus_error error = kelbus_open(&client);
    error = error != KELBUS_OK ? error : kelbus_get_bool(client, "private.a", &value, -1);
    error = error != KELBUS_OK ? error : kelbus_set_bool(client, "private.a", true, KELBUS_SET, -1);
    kelbus_close(client);
    return error;
}

// How `use` ends in a process of its own under a limit: an error, or -1 when a signal ended it.
int resultUnder(__rlimit_resource limit, rlim_t amount, kelbus_error (*use)()) {
    const pid_t child = fork();
    if (child == 0) {
        const rlimit both{amount, amount};
        setrlimit(limit, &both);
        _exit(use());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Limits, AreToldAndSurvived) {
    resetDevice(treeOf(leaf("a", "string", "1")));
    Daemon service;
    ASSERT_TRUE(service.awaitReady());
    // What is limited, from how much on, and by how much more each time.
    std::vector<std::tuple<__rlimit_resource, rlim_t, rlim_t>> scenes{{RLIMIT_NOFILE, 4, 1}};
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they need it all themselves
    const rlim_t pages = std::stoul(readFile("/proc/self/statm"));
    scenes.emplace_back(RLIMIT_AS, pages * static_cast<rlim_t>(getpagesize()), 512UL * 1024);
#endif
    for (const auto use : {getAndSet, openWatch}) {
        for (const auto& [limit, first, step] : scenes) {
            std::set<int> results;
            for (unsigned i = 0; i < 60; ++i) {
                results.insert(resultUnder(limit, first + i * step, use));
            }
            EXPECT_EQ(results, (std::set<int>{KELBUS_OK, KELBUS_NO_MEMORY})) << limit;
        }
    }
}

} // namespace
} // namespace kelconf::test
