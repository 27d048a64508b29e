// libkelbus in a process that is at its own limits: an error, never the end of the process.
#include "client/bus_session.h"
#include "daemon/daemon_process.h"
#include "support/files.h"

#include <sys/resource.h>

#include <functional>
#include <map>

namespace kelconf::test {
namespace {

using Use = std::function<kelbus_error()>;

kelbus_error getAndSet() {
    kelbus* client = nullptr;
    kelbus_error error = kelbus_open(&client);
    char* value = nullptr;
    error = error != KELBUS_OK ? error : kelbus_get(client, "private.a", &value, kLimit);
    error = error != KELBUS_OK ? error
                               : kelbus_set(client, "private.a", value, KELBUS_SET_NO_DB, kLimit);
    kelbus_free(value);
    kelbus_close(client);
    return error;
}

kelbus_error openWatch() {
    kelbus_watch* watch = nullptr;
    const kelbus_error error = kelbus_watch_open(&watch, nullptr, 0);
    kelbus_watch_close(watch);
    return error;
}

// How `use` ends in a process of its own under a limit: an error, or 128 + the signal that ended
// it.
int resultUnder(__rlimit_resource limit, rlim_t amount, const Use& use) {
    const pid_t child = fork();
    if (child == 0) {
        const rlimit both{amount, amount};
        setrlimit(limit, &both);
        _exit(use());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

[[maybe_unused]] rlim_t addressSpace() {
    return std::stoul(readFile("/proc/self/statm")) * static_cast<rlim_t>(getpagesize());
}

TEST(Limits, AreToldAndSurvived) {
    resetDevice(treeOf(leaf("a", "string", "1")));
    Daemon service;
    ASSERT_TRUE(service.awaitReady());
    struct Scene {
        __rlimit_resource limit;
        rlim_t first, step;
    };
    std::vector<Scene> scenes{{RLIMIT_NOFILE, 4, 1}};
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they need it all themselves
    scenes.push_back({RLIMIT_AS, addressSpace(), 512UL * 1024});
#endif
    for (const Use& use : {Use{getAndSet}, Use{openWatch}}) {
        for (const Scene& scene : scenes) {
            std::map<int, int> results;
            for (unsigned i = 0; i < 60; ++i) {
                ++results[resultUnder(scene.limit, scene.first + i * scene.step, use)];
            }
            EXPECT_GT(results[KELBUS_OK], 0) << scene.limit;
            EXPECT_GT(results[KELBUS_NO_MEMORY], 0) << scene.limit;
            EXPECT_EQ(results[KELBUS_OK] + results[KELBUS_NO_MEMORY], 60)
                << scene.limit << ": " << ::testing::PrintToString(results);
        }
    }
}

} // namespace
} // namespace kelconf::test
