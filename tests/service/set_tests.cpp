// SET requests from the answer list to the database, the sidecar and the events, with real files.

#include "bus/bus_context.h"
#include "bus/event_publisher.h"
#include "bus_client.h"
#include "db/live_db.h"
#include "db/update_retries.h"
#include "files/backup.h"
#include "files/live_seal.h"
#include "files/md5_sidecar.h"
#include "live_values.h"
#include "paths.h"
#include "service/password_state.h"
#include "service/passwords.h"
#include "service/set_handling.h"
#include "service/write_back.h"
#include "support/files.h"
#include "support/records.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

namespace kelconf::test {
namespace {

const std::string kStorage = "/mnt/nand/conf/fileStorage/";

class Sets : public testing::Test {
  protected:
    void SetUp() override {
        resetDevice();
        emptyLists();
        std::filesystem::create_directories("/tmp/kelbus");
        std::filesystem::create_directories(kStorage);
        createSQLTable();
        ASSERT_TRUE(initBusContext());
        initEventSocket();
        events_ = client_.connect(ZMQ_SUB, endpoints::kEvent);
        // A subscription takes effect at some later moment: announce until one arrives.
        setSocketOption(events_.get(), ZMQ_RCVTIMEO, 50);
        while (receiveText(events_.get()).starts_with("(no reply")) {
            sendEvent("probe", "", "");
        }
        setSocketOption(events_.get(), ZMQ_RCVTIMEO, kPatienceMs);
        event();
        support_campass = 1;
        backup_pending = 0;
    }
    void TearDown() override {
        closeEventSocket(0);
        events_.reset();
        shutdownBusContext();
        closeBusContext();
        emptyLists();
    }

    // The next event's body; what was announced before is over once a marker comes back.
    std::string event() {
        sendEvent("marker", "", "");
        std::string all;
        while (true) {
            const std::string next = body(receiveText(events_.get()));
            if (next.find("\"marker\"") != std::string::npos || next.starts_with("(not")) {
                return all;
            }
            if (next.find("\"probe\"") == std::string::npos) {
                all += next;
            }
        }
    }

    static void parameter(const std::string& name, const std::string& value,
                          bool realtime = false) {
        insertSQLEntry(name.c_str(), value.c_str(), realtime ? "realtime" : "string");
        addLive(name, value, realtime);
        sortParamList();
    }

    static int apply(std::uint8_t (*how)(),
                     const std::vector<std::pair<std::string, std::string>>& pairs) {
        for (const auto& [name, value] : pairs) {
            addSetAnswerElementWithNameAndValue(name.c_str(), value.c_str());
        }
        const int result = how();
        delSetAnswerElement();
        return result;
    }

    static std::string stored(const std::string& name) {
        const auto rows = sql(paths::kLiveDb, "SELECT VALUE FROM CONFIG WHERE NAME='" + name + "'");
        return rows.empty() ? "(none)" : rows[0][0];
    }

    Client client_;
    Socket events_;
};

std::string change(const std::string& name, const std::string& prev, const std::string& value) {
    return "<parameter name=\"" + name + "\" prev_value=\"" + prev + "\">" + value + "</parameter>";
}

std::string eventOf(const std::string& changes) {
    return "<EVENT_ACTION>" + changes + "</EVENT_ACTION>";
}

TEST_F(Sets, ADirectSetStoresSealsAndAnnounces) {
    parameter("a", "1");
    parameter("b", "x");
    EXPECT_EQ(apply(setDirectValueForSetAnswerList, {{"a", "2"}, {"b", "it's 'q'"}, {"a", "3"}}),
              1);
    EXPECT_EQ(stored("a"), "3");
    EXPECT_EQ(stored("b"), "it's 'q'");
    EXPECT_EQ(live("a"), "3");
    EXPECT_TRUE(checkConfigDBMD5());
    EXPECT_EQ(judgeLiveSeal(), LiveSeal::kMatches);
    EXPECT_EQ(backup_pending, 1);
    EXPECT_EQ(event(), eventOf(change("a", "1", "2") + change("b", "x", "it's 'q'") +
                               change("a", "2", "3")));
}

TEST_F(Sets, AnUnchangedOrdinaryParameterIsPassedOver) {
    parameter("a", "1");
    parameter("r", "1", true);
    EXPECT_EQ(apply(setValueForSetAnswerList, {{"a", "1"}}), 1);
    EXPECT_EQ(process_file_event, 0);
    EXPECT_EQ(item_queue_size(), 0U);
    EXPECT_EQ(event(), "");
    EXPECT_EQ(apply(setValueForSetAnswerList, {{"r", "1"}}), 1);
    EXPECT_EQ(process_file_event, 0) << "only a realtime parameter changed";
    EXPECT_EQ(event(), eventOf(change("r", "1", "1")));
    EXPECT_EQ(apply(setValueForSetAnswerList, {{"none", "1"}, {"a", "2"}}), 0);
    EXPECT_EQ(process_file_event, 1);
    EXPECT_EQ(item_queue_size(), 1U);
    EXPECT_EQ(live("a"), "2");
    EXPECT_EQ(stored("a"), "1") << "stored by the task only";
    saveFileDirect();
    EXPECT_EQ(stored("a"), "2");
    EXPECT_EQ(event(), eventOf(change("a", "1", "2")));
}

TEST_F(Sets, WithoutTheDatabaseNothingIsStored) {
    parameter("a", "1");
    EXPECT_EQ(apply(setValueForSetAnswerListNoDBStore, {{"a", "2"}, {"a", "2"}}), 1);
    EXPECT_EQ(event(), eventOf(change("a", "1", "2")));
    EXPECT_EQ(apply(setValueForSetAnswerList, {{"a", "2"}}), 1);
    saveFileDirect();
    EXPECT_EQ(stored("a"), "1");
    EXPECT_EQ(event(), "");
}

TEST_F(Sets, AnEmptyDirectSetStillSeals) {
    std::filesystem::remove(paths::kLiveDbMd5);
    EXPECT_EQ(apply(setDirectValueForSetAnswerList, {}), 1);
    EXPECT_TRUE(checkConfigDBMD5());
    EXPECT_EQ(backup_pending, 1);
    EXPECT_EQ(event(), "");
}

TEST_F(Sets, LargeBatchesAreAnnouncedSinglyBeyondTheLimit) {
    std::vector<std::pair<std::string, std::string>> pairs;
    std::string batch;
    std::string single;
    for (int i = 0; i < 9; ++i) { // name 2, value 24, previous value 24: 150 bytes counted
        const std::string name = "n" + std::to_string(i);
        parameter(name, std::string(24, 'o'));
        pairs.emplace_back(name, std::string(24, 'v'));
        const std::string one = change(name, std::string(24, 'o'), std::string(24, 'v'));
        (i < 6 ? batch : single) += i < 6 ? one : eventOf(one);
    }
    EXPECT_EQ(apply(setDirectValueForSetAnswerList, pairs), 1);
    EXPECT_EQ(event(), single + eventOf(batch)) << "the batch goes out last";
}

TEST_F(Sets, ALargeChangeIsAnnouncedOnItsOwn) {
    parameter("a", "1");
    const std::string value(1000, 'v');
    apply(setDirectValueForSetAnswerList, {{"a", value}});
    EXPECT_EQ(event(), eventOf(change("a", "1", value)));
}

struct StoredFileCase {
    std::string before;
    std::string after;
    std::string victim;
    bool deleted;
};

TEST_F(Sets, StoredFilesAreDeletedButNothingElse) {
    std::filesystem::create_directories(kStorage + "sub");
    std::filesystem::create_directories("/tmp/outside");
    std::filesystem::create_directory_symlink("/tmp/outside", kStorage + "link");
    const StoredFileCase cases[] = {
        {kStorage + "a", "plain", kStorage + "a", true},
        {kStorage + "sub/a", "", kStorage + "sub/a", true},
        {kStorage + "a", kStorage + "b", kStorage + "a", false},
        {kStorage + "a", kStorage + "a", kStorage + "a", false},
        {kStorage + "../victim.db", "", "/mnt/nand/conf/victim.db", false},
        {kStorage + "sub/../../victim.db", "", "/mnt/nand/conf/victim.db", false},
        {kStorage + "link/victim", "", "/tmp/outside/victim", false},
        {"x" + kStorage + "a", "", kStorage + "a", false},
        {"/tmp/.." + kStorage + "a", "", kStorage + "a", false},
        {kStorage + "sub/", "", kStorage + "sub", false},
        {kStorage, "", kStorage, false},
    };
    int number = 0;
    for (const StoredFileCase& c : cases) {
        if (!std::filesystem::is_directory(c.victim)) {
            writeFile(c.victim, "x");
        }
        const std::string name = "f" + std::to_string(number++);
        parameter(name, c.before);
        EXPECT_EQ(apply(setDirectValueForSetAnswerList, {{name, c.after}}), 1);
        EXPECT_EQ(exists(c.victim), !c.deleted) << c.before << " to " << c.after;
        EXPECT_EQ(stored(name), c.after);
        EXPECT_EQ(event(), eventOf(change(name, c.before, c.after))) << "a change every time";
    }
    EXPECT_TRUE(exists(paths::kLiveDb));
}

TEST_F(Sets, PasswordsAreStoredScrambledAndNotLogged) {
    parameter("u.passwd", "");
    parameter("u.password", "");
    DeviceLog log;
    apply(setDirectValueForSetAnswerList, {{"u.passwd", "it's me"}, {"u.password", "shown"}});
    const auto records = log.take();
    EXPECT_EQ(texts(records.syslog),
              std::vector<std::string>{
                  "[set_tests]configuration changes=>item name:u.password value:shown\n"});
    EXPECT_EQ(records.console, "");
    EXPECT_EQ(stored("u.passwd"), scrambledForm("it's me"));
    EXPECT_NE(stored("u.passwd").find_first_not_of("'"), std::string::npos);
    support_campass = 0;
    apply(setDirectValueForSetAnswerList, {{"u.passwd", "o'plain"}});
    EXPECT_EQ(stored("u.passwd"), "o'plain");
}

TEST_F(Sets, TheTaskStoresWhatIsQueuedAndEnds) {
    parameter("a", "1");
    std::thread task(saveFileTask);
    for (int i = 2; i < 12; ++i) {
        apply(setValueForSetAnswerList, {{"a", std::to_string(i)}});
    }
    endFileEvents();
    task.join();
    resumeFileEvents();
    EXPECT_EQ(item_queue_size(), 0U);
    EXPECT_EQ(stored("a"), "11");
    EXPECT_TRUE(checkConfigDBMD5());
}

TEST_F(Sets, WhatCouldNotBeStoredIsStoredLater) {
    parameter("a", "1");
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(paths::kLiveDb, &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    endUpdateRetries(); // one attempt each: the pauses are timed elsewhere
    apply(setDirectValueForSetAnswerList, {{"a", "2"}});
    EXPECT_EQ(live("a"), "2");
    EXPECT_EQ(event(), eventOf(change("a", "1", "2"))) << "announced although not stored";
    storeFailedChanges();
    sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    EXPECT_EQ(stored("a"), "1");
    storeFailedChanges();
    allowUpdateRetries();
    EXPECT_EQ(stored("a"), "2");
    EXPECT_TRUE(checkConfigDBMD5());
}

// ---- Publisher ----

TEST_F(Sets, ThreadsPublishWholeEvents) {
    const auto publish = [](const char* name) {
        for (int i = 0; i < 200; ++i) {
            sendEvent(name, "v", nullptr);
        }
    };
    std::thread first(publish, "first");
    std::thread second(publish, "second");
    first.join();
    second.join();
    std::string all = event();
    int count = 0;
    for (const std::string& one :
         {eventOf(change("first", "", "v")), eventOf(change("second", "", "v"))}) {
        for (std::size_t at = 0; (at = all.find(one, at)) != std::string::npos; ++at) {
            ++count;
        }
    }
    EXPECT_EQ(count, 400);
}

} // namespace
} // namespace kelconf::test
