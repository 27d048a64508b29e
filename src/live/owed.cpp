#include "live/owed.h"

#include "text/text.h"

#include <atomic>
#include <functional>
#include <map>

namespace kelconf {

namespace {

using Values = std::map<std::string, std::string, std::less<>>;

std::atomic<LiveFile> live_file{LiveFile::kWhole};
std::atomic<bool> any_unstored{false}; // the list is not empty

struct Owed {
    Values unstored;
    Values memory_only; // by name, what the file keeps
};

Owed& owed() {
    static Owed values;
    return values;
}

} // namespace

LiveFile liveFile() {
    return live_file;
}

void setLiveFile(LiveFile state) {
    live_file = state;
}

void noteUnstored(const std::string& name, const std::string& value) {
    owed().unstored.insert_or_assign(name, value);
    any_unstored = true;
}

void noteStored(const std::string& name, const std::string& value) {
    if (const auto kept = owed().memory_only.find(name); kept != owed().memory_only.end()) {
        kept->second = value;
    }
    owed().unstored.erase(name);
    any_unstored = !owed().unstored.empty();
}

bool anyUnstored() {
    return any_unstored;
}

std::vector<StoredChange> unstoredChanges() {
    std::vector<StoredChange> changes;
    for (const auto& [name, value] : owed().unstored) {
        changes.push_back({name, value});
    }
    return changes;
}

void noteMemoryOnly(const std::string& name, const std::string& stored) {
    owed().memory_only.try_emplace(name, stored);
}

void endMemoryOnly(const std::string& name) {
    owed().memory_only.erase(name);
}

std::string_view valueToStore(const char* name, const char* live) {
    const std::string_view key{name};
    for (const Values* values : {&owed().unstored, &owed().memory_only}) {
        if (const auto found = values->find(key); found != values->end()) {
            return found->second;
        }
    }
    return viewOf(live);
}

void noteAllStored() {
    for (const StoredChange& change : unstoredChanges()) {
        noteStored(change.name, change.value);
    }
}

} // namespace kelconf
