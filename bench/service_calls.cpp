// The system calls of one SET that stores, beside those of the bare calls.
#include "bench_clients.h"
#include "servers.h"
#include "service_bench.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

namespace bench {

namespace {

constexpr const char* kTrace = "/tmp/bench/trace";

using Calls = std::map<std::string, double>; // name of a system call, how often in one storing

// `thread` 0: all threads.
Calls callsIn(const std::string& trace, pid_t thread, long storings) {
    Calls calls;
    std::ifstream lines(trace);
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t name = line.find_first_not_of("0123456789 ");
        const std::size_t end = line.find('(');
        const bool counts = thread == 0 || std::strtol(line.c_str(), nullptr, 10) == thread;
        if (counts && name != std::string::npos && end != std::string::npos && name < end) {
            calls[line.substr(name, end - name)] += 1.0 / static_cast<double>(storings);
        }
    }
    return calls;
}

std::vector<std::string> traced(const std::vector<std::string>& command) {
    constexpr const char* kCalls = "trace=openat,close,read,pread64,write,pwrite64,fcntl,fsync,"
                                   "fdatasync,sync,unlink,newfstatat,fstat,fallocate";
    std::vector<std::string> all{"strace", "-f", "-qq", "-o", kTrace, "-e", kCalls};
    all.insert(all.end(), command.begin(), command.end());
    return all;
}

// In the service only its SET thread is looked at; its start makes hardly a call.
Calls callsOfService(const std::string& name, long storings) {
    pid_t thread = 0;
    {
        const Server tracer{traced(daemonCommand())};
        BusClient client{kSet};
        client.ask(setRequest("SET_ACTION", {name}, "value 0"));
        thread = Server::threadOf(tracer.child(), "set");
        for (long i = 0; i < storings; ++i) {
            client.ask(setRequest("SET_ACTION_DIRECT", {name}, i % 2 == 0 ? "a" : "b"));
        }
    }
    return callsIn(kTrace, thread, storings);
}

} // namespace

void printCalls() {
    constexpr long kStorings = 20;
    installDatabase(kSizes[0]);
    const std::string name = parameterNames(2)[0];
    const Calls own = callsOfService(name, kStorings);
    runToEnd(traced(floorCommand({"store-alone", name, std::to_string(kStorings)})));
    const Calls bare = callsIn(kTrace, 0, kStorings);
    std::puts(
        "\nSystem calls of one SET_ACTION_DIRECT of one name (its thread; 500 parameters).\n\n"
        "| call | kelconfd | bare |\n|---|---:|---:|");
    std::map<std::string, std::pair<double, double>> both;
    for (const auto& [call, count] : own) {
        both[call].first = count;
    }
    for (const auto& [call, count] : bare) {
        both[call].second = count;
    }
    for (const auto& [call, counts] : both) {
        if (counts.first >= 0.5 || counts.second >= 0.5) {
            std::printf("| %s | %.1f | %.1f |\n", call.c_str(), counts.first, counts.second);
        }
    }
}

} // namespace bench
