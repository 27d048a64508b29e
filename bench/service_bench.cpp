// service_bench BIN [ROUNDS]: the running kelconfd against two floors, its storing against the bare
// calls, and Redis beside it.
//
// Runs inside a private device root (bench/service makes one). BIN holds kelconfd and bus_floor;
// redis-server and strace are those of the machine. All servers are processes of their own, asked
// by the same client on sockets of the same kind, in turn. The figures are medians over all turns
// of all rounds, the ratios medians of the ratios within a turn. Each round starts the servers
// anew on a database of every size.
//
// Prints Markdown tables. Exit status 1 when a server fails or answers other bytes than the floor.

#include "service_bench.h"

#include "bare_store.h"
#include "bench_clients.h"
#include "servers.h"
#include "turns.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace {

using namespace bench;

// ---- Requests against the floors ----------------------------------------------------------------

enum Kind : std::size_t { kGetOne, kGetHundred, kGetEvery, kSetMemory, kKinds };

struct KindFacts {
    const char* title;
    const char* endpoint;
    const char* goal; // of the ratio over the xml floor
    long repeats;     // at 500 parameters; of the listing fewer at larger sizes
};
constexpr std::array<KindFacts, kKinds> kFacts{{{"GET, 1 name", kGet, "<= 1.15 (raw <= 1.6)", 200},
                                                {"GET, 100 names", kGet, "<= 1.2", 60},
                                                {"GET_ALL", kGetAll, "<= 0.5", 40},
                                                {"SET_ACTION_NO_DB, 1 name", kSet, "<= 1.2", 200}}};

enum Contestant : std::size_t { kOwn, kXmlFloor, kRawFloor, kContestants };

struct Figures {
    std::array<std::vector<double>, kContestants> times;
    std::array<std::vector<double>, kContestants> processors;
};
using Key = std::pair<std::size_t, long>; // kind, parameters
std::map<Key, Figures> figures;

int repeatsOf(Kind kind, long size) {
    const long listed = kind == kGetEvery ? size / 500 : 1;
    return static_cast<int>(std::max(2L, kFacts[kind].repeats / listed));
}

std::string requestOf(Kind kind, const std::vector<std::string>& names, std::string_view value) {
    switch (kind) {
    case kGetOne:
        return getRequest({names[names.size() / 3]});
    case kGetHundred:
        return getRequest(spread(names, 100));
    case kGetEvery:
        return std::string{kGetAllRequest};
    default:
        return setRequest("SET_ACTION_NO_DB", {names[names.size() / 5]}, value);
    }
}

void playKind(Kind kind, long size, const Server& daemon, const Server& xml_floor) {
    const std::vector<std::string> names = parameterNames(size);
    // Two requests: a SET must change the value each time. They end on the value that was there.
    const std::array requests{requestOf(kind, names, "other text"),
                              requestOf(kind, names, "value " + std::to_string(size / 5))};
    BusClient own{kFacts[kind].endpoint};
    BusClient xml{kXml};
    const std::string reply = own.replyTo(requests[1]);
    if (reply != xml.replyTo(requests[1])) {
        giveUp(std::string{"the service and the xml floor differ: "} + kFacts[kind].title);
    }
    std::ofstream(kReply) << reply;
    const Server raw_floor{floorCommand({"raw", kRaw, kReply})};
    BusClient raw{kRaw};
    raw.ask(requests[1]);
    const auto alternate = [&requests](BusClient& client) {
        return [&requests, &client, turn = 0U]() mutable { client.ask(requests[turn++ % 2]); };
    };
    std::vector<Rival> rivals{
        {&daemon, alternate(own)}, {&xml_floor, alternate(xml)}, {&raw_floor, alternate(raw)}};
    constexpr int kTurns = 15;
    playTurns(rivals, kTurns, repeatsOf(kind, size));
    Figures& kept = figures[{kind, size}];
    for (std::size_t i = 0; i < kContestants; ++i) {
        append(kept.times[i], rivals[i].times);
        append(kept.processors[i], rivals[i].processors);
    }
}

// ---- Storing before the answer ------------------------------------------------------------------

// The service, with the log record of the change and without one; the bare calls in this process;
// the same with the mark of an interrupted pass; the bare calls behind the raw floor's loop, so
// that the way there and back counts on both sides.
enum StoreRival : std::size_t { kService, kUnlogged, kBare, kMarked, kBareOnBus, kStoreRivals };
struct StoreFigures {
    std::array<std::vector<double>, kStoreRivals> times;
    std::array<std::vector<double>, kStoreRivals> processors;
};
std::map<long, StoreFigures> stored;

void playStoring(long size, const Server& daemon) {
    const std::vector<std::string> names = parameterNames(size);
    const std::string& bare_name = names[names.size() / 2 + 1];
    const Server floor{floorCommand({"store", kRaw, bare_name})};
    BusClient client{kSet};
    BusClient floor_client{kRaw};
    floor_client.ask("first");
    const auto bare = [&](bool mark) {
        return [&bare_name, mark, turn = 0U]() mutable {
            // The backup may be reading just now.
            while (!bareSet(bare_name.c_str(), turn++ % 2 == 0 ? "this" : "that", mark)) {
            }
        };
    };
    const auto own = [&](const std::string& name) {
        return [&client, name, turn = 0U]() mutable {
            client.ask(setRequest("SET_ACTION_DIRECT", {name}, turn++ % 2 == 0 ? "this" : "that"));
        };
    };
    std::vector<Rival> rivals{{&daemon, own(names[names.size() / 2])},
                              {&daemon, own(kUnloggedName)},
                              {nullptr, bare(false)},
                              {nullptr, bare(true)},
                              {&floor, [&] { floor_client.ask("next"); }}};
    constexpr int kTurns = 16;
    constexpr int kRepeats = 4;
    playTurns(rivals, kTurns, kRepeats);
    for (std::size_t i = 0; i < kStoreRivals; ++i) {
        append(stored[size].times[i], rivals[i].times);
        append(stored[size].processors[i], rivals[i].processors);
    }
}

// ---- Rounds and tables --------------------------------------------------------------------------

void playRound() {
    for (const long size : kSizes) {
        installDatabase(size);
        const Server daemon{daemonCommand()};
        awaitDaemon();
        const Server xml_floor{floorCommand({"xml", kXml})};
        for (std::size_t kind = 0; kind < kKinds; ++kind) {
            playKind(static_cast<Kind>(kind), size, daemon, xml_floor);
        }
        playStoring(size, daemon);
    }
}

void printRequests() {
    std::puts("Time of a request at its client, and the server's processor time for it. The "
              "ratios are kelconfd over the floor.\n\n"
              "| request | parameters | kelconfd, us | xml floor, us | raw floor, us | over xml | "
              "over raw | processor time over xml | goal |\n"
              "|---|---:|---:|---:|---:|---:|---:|---:|---|");
    for (const auto& [key, kept] : figures) {
        std::printf("| %s | %ld | %.1f | %.1f | %.1f | %.2f | %.2f | %.2f | %s |\n",
                    kFacts[key.first].title, key.second, median(kept.times[kOwn]),
                    median(kept.times[kXmlFloor]), median(kept.times[kRawFloor]),
                    medianRatio(kept.times[kOwn], kept.times[kXmlFloor]),
                    medianRatio(kept.times[kOwn], kept.times[kRawFloor]),
                    medianRatio(kept.processors[kOwn], kept.processors[kXmlFloor]),
                    kFacts[key.first].goal);
    }
}

void printGrowth(Kind kind, long large, long small, const char* goal) {
    std::printf("| %s, %ld over %ld parameters |", kFacts[kind].title, large, small);
    for (const auto part : {&Figures::times, &Figures::processors}) {
        for (const Contestant contestant : {kOwn, kXmlFloor}) {
            std::printf(" %.2f |", median((figures[{kind, large}].*part)[contestant]) /
                                       median((figures[{kind, small}].*part)[contestant]));
        }
    }
    std::printf(" %s |\n", goal);
}

void printStoring() {
    std::puts(
        "\nSET_ACTION_DIRECT of one name against the bare calls on the same file (open, PRAGMA, "
        "BEGIN, UPDATE, END, close, MD5, sidecar, sync), called without a bus and behind a bare "
        "REP loop.\n\n"
        "| parameters | kelconfd, ms | bare, ms | over bare | over bare behind a loop | its "
        "processor time | unlogged, over bare | unlogged, over bare behind a loop | the mark: "
        "bare with it, over bare | goal |\n|---:|---:|---:|---:|---:|---:|---:|---:|---:|---|");
    for (const auto& [size, kept] : stored) {
        const auto ratio = [times = &kept.times](StoreRival measured, StoreRival against) {
            return medianRatio((*times)[measured], (*times)[against]);
        };
        std::printf(
            "| %ld | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f | <= 1.15 over bare |\n",
            size, median(kept.times[kService]) / 1e3, median(kept.times[kBare]) / 1e3,
            ratio(kService, kBare), ratio(kService, kBareOnBus),
            medianRatio(kept.processors[kService], kept.processors[kBareOnBus]),
            ratio(kUnlogged, kBare), ratio(kUnlogged, kBareOnBus), ratio(kMarked, kBare));
    }
}

void printRounds() {
    printRequests();
    std::puts("\nGrowth, of medians.\n\n| what | kelconfd | xml floor | kelconfd, processor time | "
              "xml floor, processor time | goal |\n|---|---:|---:|---:|---:|---|");
    printGrowth(kGetHundred, 50'000, 500, "< 1.3");
    printGrowth(kGetEvery, 50'000, 5'000, "<= 12");
    printStoring();
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: service_bench BIN [ROUNDS]\n", stderr);
        return 2;
    }
    setPrograms(argv[1]);
    const int rounds = argc > 2 ? static_cast<int>(std::strtol(argv[2], nullptr, 10)) : 5;
    std::filesystem::create_directories(kWork);
    for (int round = 1; round <= rounds; ++round) {
        std::fprintf(stderr, "service_bench: round %d of %d\n", round, rounds);
        playRound();
    }
    printRounds();
    printCalls();
    printSeveralClients(rounds);
    printPasses();
    printMemory();
    printPeer(rounds);
    std::filesystem::remove_all(kWork);
    return 0;
}
