// Redis beside the service, for orientation.
#include "bench_clients.h"
#include "servers.h"
#include "service_bench.h"
#include "turns.h"

#include <cstdio>
#include <filesystem>

namespace bench {

namespace {

namespace fs = std::filesystem;

constexpr const char* kRedisSocket = "/tmp/bench/redis";
constexpr const char* kRedisDirectory = "/mnt/nand/redis";

struct PeerRow {
    const char* title;
    const char* endpoint;
    std::array<std::string, 2> requests; // in turn
    std::array<std::string, 2> commands;
    int turns, repeats;
    Rival own{nullptr, {}}, peer{nullptr, {}};
};

std::array<PeerRow, 3> peerRows(const std::vector<std::string>& names) {
    const std::vector<std::string> hundred = spread(names, 100);
    std::vector<std::string> mget{"MGET"};
    mget.insert(mget.end(), hundred.begin(), hundred.end());
    const std::string get = getRequest({names[7]});
    const std::string get_hundred = getRequest(hundred);
    const std::string get_command = RedisClient::commandOf({"GET", names[7]});
    const std::string mget_command = RedisClient::commandOf(mget);
    const auto direct = [&](const char* value) {
        return setRequest("SET_ACTION_DIRECT", {names[9]}, value);
    };
    const auto set = [&](const char* value) {
        return RedisClient::commandOf({"SET", names[9], value});
    };
    return {{{"GET of one name / GET", kGet, {get, get}, {get_command, get_command}, 15, 200},
             {"GET of 100 names / MGET of 100",
              kGet,
              {get_hundred, get_hundred},
              {mget_command, mget_command},
              15,
              60},
             {"SET_ACTION_DIRECT of one name / SET, appendfsync always",
              kSet,
              {direct("this"), direct("that")},
              {set("this"), set("that")},
              12,
              1}}};
}

void playPeer(PeerRow& row, RedisClient& redis) {
    BusClient client{row.endpoint};
    std::vector<Rival> rivals{
        {nullptr, [&, turn = 0U]() mutable { client.ask(row.requests[turn++ % 2]); }},
        {nullptr, [&, turn = 0U]() mutable { redis.ask(row.commands[turn++ % 2]); }}};
    playTurns(rivals, row.turns, row.repeats);
    append(row.own.times, rivals[0].times);
    append(row.peer.times, rivals[1].times);
}

std::vector<std::string> storeAll(const std::vector<std::string>& names) {
    std::vector<std::string> words{"MSET"};
    for (const std::string& name : names) {
        words.insert(words.end(), {name, "a value"});
    }
    return words;
}

} // namespace

void printPeer(int rounds) {
    const long size = kSizes[1];
    const std::vector<std::string> names = parameterNames(size);
    std::array<PeerRow, 3> rows = peerRows(names);
    for (int round = 0; round < rounds; ++round) {
        installDatabase(size);
        fs::remove_all(kRedisDirectory);
        fs::create_directories(kRedisDirectory);
        const Server daemon{daemonCommand()};
        const Server server{{"redis-server", "--port", "0", "--unixsocket", kRedisSocket, "--save",
                             "", "--appendonly", "yes", "--appendfsync", "always", "--dir",
                             kRedisDirectory}};
        RedisClient redis{kRedisSocket};
        redis.ask(RedisClient::commandOf(storeAll(names)));
        for (PeerRow& row : rows) {
            playPeer(row, redis);
        }
    }
    fs::remove_all(kRedisDirectory);
    std::puts("\nRedis beside it (5,000 parameters).\n\n| request | kelconfd, us | Redis, us | "
              "kelconfd over Redis |\n|---|---:|---:|---:|");
    for (const PeerRow& row : rows) {
        std::printf("| %s | %.0f | %.0f | %.2f |\n", row.title, median(row.own.times),
                    median(row.peer.times), medianRatio(row.own.times, row.peer.times));
    }
}

} // namespace bench
