// The product's side of the judge: what a start of the service makes of the files that it finds.
// All calls into it stand in recover.cpp.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kelconf::powercut {

using Values = std::map<std::string, std::string>;

struct Start {
    bool through = false; // it would have served
    Values values;        // the live ones, passwords plain
    std::string log;
};
// Once, before the program has threads or much memory.
void prepareStarts();
// Runs the start of kelconfd in a process of its own, up to the bus.
Start startService();

void sealLive(); // as an older firmware did
bool liveSealed();
bool backupSealed();           // its sidecar matches
std::string wrongWithBackup(); // empty when it can be read

// Runs kelconf-init; empty when the factory database then is sealed and holds the values of one of
// these trees.
std::string wrongWithFactory(const std::vector<Values>& trees);

} // namespace kelconf::powercut
