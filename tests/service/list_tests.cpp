// The lists of the service in memory: live parameters, request lists, the queue of changes and
// its signal, and the three locks.

#include "bus/event_publisher.h"
#include "bus/service_locks.h"
#include "live_values.h"
#include "support/device_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

namespace kelconf::test {
namespace {

class Lists : public testing::Test {
  protected:
    void SetUp() override { emptyLists(); }
    void TearDown() override { emptyLists(); }
    static std::vector<std::string> logged(DeviceLog& log) {
        std::vector<std::string> messages;
        for (const std::string& text : texts(log.take().syslog)) {
            messages.push_back(text.substr(text.find(']') + 1));
        }
        return messages;
    }
};

// ---- Live parameters ----

TEST_F(Lists, LookupFindsExactlyTheNamesThatAreThere) {
    EXPECT_EQ(seekParamElement("a"), nullptr);
    std::vector<std::string> names;
    for (int i = 0; i < 70; ++i) {
        names.push_back("p." + std::to_string(i * 11 % 70) + (i % 3 == 0 ? ".x" : ""));
        addLive(names.back(), "v" + std::to_string(i));
        sortParamList();
        for (std::size_t k = 0; k < names.size(); ++k) {
            ASSERT_EQ(live(names[k].c_str()), "v" + std::to_string(k)) << i;
        }
        for (const char* absent : {"", "p", "p.", "P.0.x", "p.00", "p.0.xx", "q", "\xff", "A"}) {
            ASSERT_EQ(seekParamElement(absent), nullptr) << absent << " of " << i;
        }
    }
}

TEST_F(Lists, RemovalTakesOneElement) {
    for (const char* name : {"b", "a.10", "B", "a.9", "\xc3\xa9", "a"}) {
        addLive(name, "2");
    }
    sortParamList();
    std::string order;
    for (std::uint32_t i = 0; paramElementAt(i) != nullptr; ++i) {
        order += std::string(paramElementAt(i)->name) + " ";
    }
    EXPECT_EQ(order, "B a a.10 a.9 b \xc3\xa9 ") << "by bytes";
    EXPECT_EQ(DeleteFromParamList("c"), 0);
    EXPECT_EQ(CheckParamListLength(), 6);
    EXPECT_EQ(DeleteFromParamList("a"), 1);
    EXPECT_EQ(DeleteFromParamList("\xc3\xa9"), 1);
    EXPECT_EQ(CheckParamListLength(), 4);
    EXPECT_EQ(seekParamElement("a"), nullptr);
    EXPECT_EQ(live("b"), "2");
    // What comes later is found where it keeps the order, and after another removal as well.
    for (const char* name : {"c", "d", "e", "f"}) {
        addLive(name, name);
        EXPECT_EQ(live(name), name);
    }
    EXPECT_EQ(DeleteFromParamList("d"), 1);
    for (const char* name : {"c", "e", "f"}) {
        EXPECT_EQ(live(name), name);
    }
    EXPECT_EQ(seekParamElement("d"), nullptr);
}

TEST_F(Lists, DumpsAndTheSizeFigureAreLoggedAsDescribed) {
    DeviceLog log;
    calculateParamSize();
    addLive("ab", "c");
    addLive("d", "");
    calculateParamSize();
    dumpParamList();
    addGetAnswerElementWithNameAndValue("n", "v");
    AnswerElement bare{newText("m"), nullptr};
    addGetAnswerElement(&bare);
    dumpGetAnswerList();
    addSetAnswerElementWithName("s");
    dumpSetAnswerList();
    EXPECT_EQ(logged(log), (std::vector<std::string>{
                               "Parameter elements list size:0\n",
                               "Parameter elements list size:58\n",
                               "0. name:ab value:c \n",
                               "1. name:d value: \n",
                               "0. name:n value:v\n",
                               "1. name:m \n",
                               "0. name:s value:\n",
                           }));
}

// ---- Request lists ----

TEST_F(Lists, AnswersHoldCopiesOfLiveValues) {
    EXPECT_EQ(searchValueForGetAnswerList(), 1) << "an empty request";
    addLive("known", "v");
    sortParamList();
    addGetAnswerElementWithName("known");
    addGetAnswerElementWithName("known");
    const AnswerElement nameless{nullptr, newText("kept")};
    addGetAnswerElement(&nameless);
    EXPECT_EQ(searchValueForGetAnswerList(), 1);
    addGetAnswerElementWithName("unknown");
    addGetAnswerElementWithName("known");
    EXPECT_EQ(searchValueForGetAnswerList(), 0);
    replaceText(seekParamElement("known")->value, "changed");
    const char* expected[] = {"v", "v", "kept", "", "v"};
    ASSERT_EQ(CheckGetAnswerListLength(), 5);
    for (std::uint32_t i = 0; i < 5; ++i) {
        EXPECT_STREQ(getAnswerAt(i)->value, expected[i]) << i;
    }
    delGetAnswerElement();
    delGetAnswerElement();
    EXPECT_EQ(CheckGetAnswerListLength(), 0);
}

struct GroupCase {
    const char* group;
    const char* name;
    int member;
};

TEST_F(Lists, GroupsAreDecidedByEightBytes) {
    EXPECT_EQ(IsGroupNode("anything"), 0) << "no group";
    const GroupCase cases[] = {
        {"network.ip", "network.ipv6.mode", 1},
        {"network.", "network.x", 1},
        {"network.longer.than.eight", "network.y", 1},
        {"network", "network.x", 0},
        {"network", "network", 1},
        {"network", "networks", 0},
        {"network.x", "network", 0},
        {"", "", 1},
        {"", "a", 0},
        {"a", "a", 1},
        {"a", "ab", 0},
        {"ab", "a", 0},
        {"Network.", "network.", 0},
        {"12345678", "12345678", 1},
        {"12345678", "1234567", 0},
    };
    for (const GroupCase& c : cases) {
        addQryGroupElementWithName("zzz");
        addQryGroupElementWithName(c.group);
        EXPECT_EQ(IsGroupNode(c.name), c.member) << c.group << " and " << c.name;
        delQryGroupElement();
        EXPECT_EQ(CheckQryGroupListLength(), 0);
        EXPECT_EQ(IsGroupNode(c.name), 0) << "after the release";
        addQryGroupElementWithName(c.group);
        freeText(static_cast<GroupElement*>(simlist_get_at(&QryGroupList, 0))->name);
        simlist_destroy(&QryGroupList);
        initQryGroupListList();
        EXPECT_EQ(IsGroupNode(c.name), 0) << "in a new list";
    }
}

TEST_F(Lists, AGetAnswerWaitsForTheParameterLock) {
    addLive("a", "old");
    sortParamList();
    addGetAnswerElementWithName("a");
    enterCriticalSection();
    std::promise<void> started;
    std::thread reader([&] {
        started.set_value();
        searchValueForGetAnswerList();
    });
    started.get_future().wait();
    EXPECT_STREQ(getAnswerAt(0)->value, "");
    replaceText(seekParamElement("a")->value, "new");
    leaveCriticalSection();
    reader.join();
    EXPECT_STREQ(getAnswerAt(0)->value, "new");
}

// ---- The queue and its signal ----

void queue(const std::string& name) {
    const QueueItem item{newText(name), newText("v"), newText("p")};
    ASSERT_TRUE(item_queue_enqueue(&item));
}

TEST_F(Lists, TheQueueKeepsItsOrderBetweenThreads) {
    EXPECT_EQ(item_queue_dequeue(), nullptr);
    EXPECT_EQ(item_queue_size(), 0U);
    constexpr int kItems = 20000;
    std::thread producer([] {
        for (int i = 0; i < kItems; ++i) {
            queue(std::to_string(i));
        }
    });
    for (int i = 0; i < kItems;) {
        if (QueueItem* item = item_queue_dequeue()) {
            ASSERT_EQ(item->name, std::to_string(i++));
            releaseQueueItem(item);
        }
    }
    producer.join();
    EXPECT_EQ(item_queue_size(), 0U);
}

TEST_F(Lists, SignalsDuringAPassLeadToOneFurtherPass) {
    std::promise<void> in_pass;
    std::promise<void> go_on;
    std::atomic<int> passes{0};
    raiseFileEvent();
    std::thread task([&] {
        while (awaitFileEvent()) {
            if (++passes == 1) {
                in_pass.set_value();
                go_on.get_future().wait();
            }
        }
    });
    in_pass.get_future().wait();
    raiseFileEvent();
    raiseFileEvent();
    raiseFileEvent();
    endFileEvents();
    go_on.set_value();
    task.join();
    resumeFileEvents();
    EXPECT_EQ(passes, 2);
}

TEST(Locks, AreThreeAndExcludeOtherThreads) {
    const std::pair<std::int32_t (*)(), std::int32_t (*)()> locks[] = {
        {enterCriticalSection, leaveCriticalSection},
        {enterGetAllCriticalSection, leaveGetAllCriticalSection},
        {enterEventCriticalSection, leaveEventCriticalSection}};
    int counters[3] = {};
    const auto count = [&] {
        for (int round = 0; round < 3000; ++round) {
            for (const auto& [enter, leave] : locks) { // all three at once
                ASSERT_EQ(enter(), 0);
            }
            for (int k = 0; k < 3; ++k) {
                ++counters[k];
                ASSERT_EQ(locks[k].second(), 0);
            }
        }
    };
    std::thread other(count);
    count();
    other.join();
    EXPECT_EQ(std::vector<int>(counters, counters + 3), std::vector<int>(3, 6000));
}

// ---- The publisher ----

TEST(Publisher, LosesEventsQuietlyWithoutASocket) {
    EXPECT_EQ(eventSock, nullptr);
    EXPECT_EQ(sendEvent("a", "1", nullptr), 0);
}

} // namespace
} // namespace kelconf::test
