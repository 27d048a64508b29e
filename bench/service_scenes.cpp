// The service with several clients, during a long pass, and over many requests.
#include "bench_clients.h"
#include "servers.h"
#include "service_bench.h"
#include "turns.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>

namespace bench {

namespace {

// ---- Several clients ----------------------------------------------------------------------------

// GETs a second that so many clients get answered.
double rateOf(const char* address, const std::string& request, std::size_t clients) {
    constexpr double kSeconds = 1.0;
    std::vector<std::unique_ptr<BusClient>> sockets;
    for (std::size_t i = 0; i < clients; ++i) {
        sockets.push_back(std::make_unique<BusClient>(address));
        sockets.back()->ask(request); // connected
    }
    std::atomic<long> answered{0};
    const double start = now();
    std::vector<std::thread> threads;
    threads.reserve(clients);
    for (const auto& socket : sockets) {
        threads.emplace_back([&] {
            while (now() - start < kSeconds) {
                socket->ask(request);
                ++answered;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return static_cast<double>(answered) / (now() - start);
}

} // namespace

void printSeveralClients(int rounds) {
    constexpr std::size_t kMany = 8;
    installDatabase(kSizes[0]);
    const Server daemon{daemonCommand()};
    const std::string request = getRequest({parameterNames(2)[0]});
    std::ofstream(kReply) << BusClient{kGet}.replyTo(request);
    const Server xml{floorCommand({"xml", kXml})};
    const Server raw{floorCommand({"raw", kRaw, kReply})};
    std::puts("\nGETs of one name a second.\n\n| server | 1 client | 8 clients | ratio "
              "|\n|---|---:|---:|---:|");
    const std::array<std::pair<const char*, const char*>, 3> servers{
        {{"kelconfd", kGet}, {"xml floor", kXml}, {"raw floor", kRaw}}};
    std::array<std::vector<double>, 3> one;
    std::array<std::vector<double>, 3> many;
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < servers.size(); ++i) {
            one[i].push_back(rateOf(servers[i].second, request, 1));
            many[i].push_back(rateOf(servers[i].second, request, kMany));
        }
    }
    for (std::size_t i = 0; i < servers.size(); ++i) {
        std::printf("| %s | %.0f | %.0f | %.2f |\n", servers[i].first, median(one[i]),
                    median(many[i]), medianRatio(many[i], one[i]));
    }
}

namespace {

// ---- Reading while a pass stores ----------------------------------------------------------------

struct PassFigures {
    double seconds; // from the answer of the SET to the last event of the pass
    double longest; // ms, of the requests during the pass
    double median;  // ms
};

// A pass announces all it has stored; the events together hold every name once.
void awaitEvents(EventClient& events, std::size_t names, const std::string& value) {
    const std::string element = '>' + value + '<';
    while (names > 0) {
        const std::string event = events.next();
        for (std::size_t at = event.find(element); at != std::string::npos && names > 0;
             at = event.find(element, at + 1)) {
            --names;
        }
    }
}

// Returns when an event has come through.
void subscribe(EventClient& events, BusClient& set, const std::string& name) {
    std::atomic<bool> subscribed{false};
    std::thread first_event{[&] {
        events.next();
        subscribed = true;
    }};
    for (int i = 0; !subscribed; ++i) {
        set.ask(setRequest("SET_ACTION_NO_DB", {name}, std::to_string(i)));
        std::this_thread::sleep_for(std::chrono::milliseconds{1});
    }
    first_event.join();
}

// Sends requests one after the other to the endpoint while a pass stores a thousand names.
PassFigures playPass(long size, const char* endpoint, std::string_view request) {
    constexpr std::size_t kNames = 1000;
    const std::string value = "a new value";
    installDatabase(size);
    const Server daemon{daemonCommand()};
    const std::vector<std::string> names = parameterNames(size);
    BusClient set{kSet};
    BusClient reader{endpoint};
    EventClient events;
    subscribe(events, set, names[1]);
    reader.ask(request);

    set.ask(setRequest("SET_ACTION", spread(names, kNames), value));
    const double start = now();
    std::atomic<bool> stored_all{false};
    std::thread waiter{[&] {
        awaitEvents(events, kNames, value);
        stored_all = true;
    }};
    std::vector<double> times;
    while (!stored_all) {
        const double sent = now();
        reader.ask(request);
        times.push_back((now() - sent) * 1e3);
    }
    const double seconds = now() - start;
    waiter.join();
    return {seconds, *std::max_element(times.begin(), times.end()), median(times)};
}

void printPass(const char* title, long size, const char* endpoint, std::string_view request) {
    const PassFigures pass = playPass(size, endpoint, request);
    std::printf("| %s | %ld | %.2f | %.1f | %.2f |\n", title, size, pass.seconds, pass.longest,
                pass.median);
}

// How long a SET_ACTION_DIRECT of that many names takes, in ms.
double storing(BusClient& set, const std::vector<std::string>& names) {
    constexpr int kTimes = 11;
    std::vector<double> times;
    for (int i = 0; i < kTimes; ++i) {
        const std::string request =
            setRequest("SET_ACTION_DIRECT", names, "value " + std::to_string(i));
        const double sent = now();
        set.ask(request);
        times.push_back((now() - sent) * 1e3);
    }
    return median(times);
}

void printStorings(long size) {
    installDatabase(size);
    const Server daemon{daemonCommand()};
    const std::vector<std::string> names = parameterNames(size);
    BusClient set{kSet};
    const double one = storing(set, {names[1]});
    for (const std::size_t count : {100UL, 1000UL}) {
        const double many = storing(set, spread(names, count));
        std::printf("| %zu | %ld | %.1f | %.1f | %.1f |\n", count, size, many, one, many / one);
    }
}

} // namespace

void printPasses() {
    std::puts(
        "\nRequests, one after the other, while a SET_ACTION of 1,000 names is written back.\n\n"
        "| request | parameters | the pass, s | longest, ms | median, ms "
        "|\n|---|---:|---:|---:|---:|");
    for (const long size : {5'000L, 50'000L}) {
        printPass("GET, 1 name", size, kGet, getRequest({parameterNames(2)[0]}));
        printPass("GET_ALL", size, kGetAll, kGetAllRequest);
    }
    std::puts("\nSET_ACTION_DIRECT of many names from all over, beside one name.\n\n"
              "| names | parameters | ms | one name, ms | over one name |\n"
              "|---:|---:|---:|---:|---:|");
    for (const long size : {5'000L, 50'000L}) {
        printStorings(size);
    }
}

namespace {

// ---- Memory -------------------------------------------------------------------------------------

} // namespace

void printMemory() {
    constexpr long kRequests = 100'000;
    constexpr long kStep = 20'000;
    installDatabase(kSizes[0]);
    const Server daemon{daemonCommand()};
    const std::vector<std::string> names = parameterNames(kSizes[0]);
    BusClient get{kGet};
    BusClient set{kSet};
    BusClient all{kGetAll};
    const std::string hundred = getRequest(spread(names, 100));
    std::puts("\nResident memory of kelconfd with 500 parameters over 100,000 requests (of 20: 12 "
              "GETs of one name, 2 of 100, 5 SET_ACTION_NO_DB, 1 GET_ALL).\n\n"
              "| requests | KiB |\n|---:|---:|");
    for (long i = 0; i <= kRequests; ++i) {
        if (i % kStep == 0 || i == kStep / 10) {
            if (i == 0) {
                get.ask(hundred); // started up
            }
            std::printf("| %ld | %ld |\n", i, daemon.residentKiB());
        }
        const std::string& name = names[static_cast<std::size_t>(i * 7) % names.size()];
        switch (i % 20) {
        case 0:
            all.ask(kGetAllRequest);
            break;
        case 1:
        case 11:
            get.ask(hundred);
            break;
        case 2:
        case 6:
        case 10:
        case 14:
        case 18:
            set.ask(setRequest("SET_ACTION_NO_DB", {name}, "text " + std::to_string(i)));
            break;
        default:
            get.ask(getRequest({name}));
        }
    }
}

} // namespace bench
