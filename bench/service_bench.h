// What the parts of service_bench share: the servers' addresses and commands, and the parts that
// print a table of their own.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace bench {

inline constexpr std::array kSizes{500L, 5'000L, 50'000L}; // live parameters

inline constexpr const char* kGet = "ipc:///tmp/kelbus/kelbus_getsock";
inline constexpr const char* kSet = "ipc:///tmp/kelbus/kelbus_setsock";
inline constexpr const char* kGetAll = "ipc:///tmp/kelbus/kelbus_getallsock";
inline constexpr const char* kRaw = "ipc:///tmp/bench/raw";
inline constexpr const char* kXml = "ipc:///tmp/bench/xml";
inline constexpr const char* kReply = "/tmp/bench/reply"; // what the raw floor answers

// The directory of kelconfd and bus_floor. To be called first.
void setPrograms(const char* directory);
std::vector<std::string> daemonCommand();
std::vector<std::string> floorCommand(const std::vector<std::string>& arguments);

// Waits until kelconfd answers; its database is free to be read from then on.
void awaitDaemon();

// `count` of the names, spread over all of them.
std::vector<std::string> spread(const std::vector<std::string>& names, std::size_t count);

void append(std::vector<double>& to, const std::vector<double>& from);

// ---- Tables -------------------------------------------------------------------------------------

void printCalls();                    // the system calls of a SET that stores
void printSeveralClients(int rounds); // answers a second, with one client and with eight
void printPasses();                   // the longest GET while a thousand names are stored
void printMemory();                   // over a hundred thousand requests
void printPeer(int rounds);           // Redis

} // namespace bench
