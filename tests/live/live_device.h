// The live store in one process, on the files of a device root: starts, sets, rounds of upkeep.
#pragma once

#include "db/update_retries.h"
#include "files/backup.h"
#include "live/live.h"
#include "live/owed.h"
#include "paths.h"
#include "service/live_values.h"
#include "service/passwords.h"
#include "service/request_lists.h"
#include "service/set_handling.h"
#include "support/device_log.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kelconf::test {

using Values = std::vector<std::pair<std::string, std::string>>;

inline void writeTree(const std::string& leaves) {
    writeFile(paths::kNeutralTree, "<t><p type=\"trunk\">" + leaves + "</p></t>");
}

inline std::string leaf(const std::string& name, const std::string& value,
                        const std::string& type = "string") {
    return "<" + name + " type=\"" + type + "\">" + value + "</" + name + ">";
}

// Memory is as in a new process; the files are what was left.
inline void forgetMemory() {
    for (std::uint32_t i = 0; paramElementAt(i) != nullptr; ++i) {
        endMemoryOnly(paramElementAt(i)->name);
    }
    emptyLists();
    noteAllStored();
    setLiveFile(LiveFile::kWhole);
    backup_pending = 0;
    allowUpdateRetries();
}

inline void start() {
    forgetMemory();
    simlist_destroy(&ParamList); // the load makes it
    std::filesystem::create_directories("/tmp/kelbus");
    int seconds = 2 * kLockPatience;
    LiveSource source = readyLiveStore([&] { return --seconds > 0; });
    ASSERT_NE(source.origin, LiveOrigin::kNone);
    connectLiveStore();
    loadLiveValues(std::move(source));
}

inline void set(const Values& values, std::uint8_t (*kind)() = setDirectValueForSetAnswerList) {
    for (const auto& [name, value] : values) {
        addSetAnswerElementWithNameAndValue(name.c_str(), value.c_str());
    }
    EXPECT_EQ(kind(), 1);
    delSetAnswerElement();
}

inline std::string storedIn(const char* path, const std::string& name) {
    const auto rows = sql(path, "SELECT VALUE FROM CONFIG WHERE NAME='" + name + "'");
    return rows.empty() ? "(none)" : rows[0][0];
}

inline std::string stored(const std::string& name) {
    return storedIn(paths::kLiveDb, name);
}

// Another process in the live file, as long as the result lives.
inline auto otherDoes(const char* statements) {
    sqlite3* database = nullptr;
    sqlite3_open(paths::kLiveDb, &database);
    EXPECT_EQ(sqlite3_exec(database, statements, nullptr, nullptr, nullptr), SQLITE_OK);
    return std::unique_ptr<sqlite3, decltype(&sqlite3_close)>(database, sqlite3_close);
}

// Everything on flash, by path.
using Flash = std::map<std::string, std::string>;

inline Flash flashNow() {
    Flash files;
    for (const char* directory : {"/mnt/nand/conf", "/mnt/backup/conf"}) {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            files[entry.path()] = readFile(entry.path());
        }
    }
    return files;
}

inline void putFlash(const Flash& files) {
    for (const char* directory : {"/mnt/nand/conf", "/mnt/backup/conf"}) {
        std::filesystem::remove_all(directory);
        std::filesystem::create_directories(directory);
    }
    for (const auto& [path, content] : files) {
        writeFile(path, content);
    }
}

inline std::string swapped(std::string text, const std::string& from, const std::string& to) {
    return text.replace(text.find(from), to.size(), to);
}

// Changes bytes of the live file so that neither its size nor its time tells.
inline void rot(const std::string& from, const std::string& to) {
    const auto written = std::filesystem::last_write_time(paths::kLiveDb);
    writeFile(paths::kLiveDb, swapped(readFile(paths::kLiveDb), from, to));
    std::filesystem::last_write_time(paths::kLiveDb, written);
}

} // namespace kelconf::test
