#include "service/unstored.h"

#include "text/text.h"

#include <atomic>

namespace kelconf {

namespace {

std::atomic<LiveFile> live_file{LiveFile::kWhole};
std::atomic<bool> any_unstored{false}; // the map is not empty

std::map<std::string, std::string>& changes() {
    static std::map<std::string, std::string> unstored;
    return unstored;
}

} // namespace

LiveFile liveFile() {
    return live_file;
}

void setLiveFile(LiveFile state) {
    live_file = state;
}

const std::map<std::string, std::string>& unstoredChanges() {
    return changes();
}

void noteUnstored(const char* name, const char* value) {
    changes().insert_or_assign(name, std::string{viewOf(value)});
    any_unstored = true;
}

void noteStored(const char* name) {
    if (any_unstored) {
        changes().erase(name);
        any_unstored = !changes().empty();
    }
}

void forgetUnstored() {
    changes().clear();
    any_unstored = false;
}

bool anyUnstored() {
    return any_unstored;
}

} // namespace kelconf
