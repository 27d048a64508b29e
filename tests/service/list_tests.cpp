// The lists of the service in memory: live parameters, request lists, the signal of the queue.
#include "bus/service_locks.h"
#include "live_values.h"
#include "support/device_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <map>

namespace kelconf::test {
namespace {

class Lists : public testing::Test {
  protected:
    void SetUp() override { emptyLists(); }
    void TearDown() override { emptyLists(); }
};

using Model = std::map<std::string, std::string>; // by bytes, as the list is

void expectHeld(const Model& model) {
    std::vector<Model::value_type> held;
    for (std::uint32_t i = 0; const ParamElement* element = paramElementAt(i); ++i) {
        held.emplace_back(element->name, element->value);
        ASSERT_EQ(live(element->name), element->value);
    }
    ASSERT_TRUE(std::equal(held.begin(), held.end(), model.begin(), model.end()));
    for (const char* absent : {"", "p", "p.", "P.0.x", "p.00", "p.0.xx", "q", "\xff", "A"}) {
        ASSERT_EQ(seekParamElement(absent), nullptr) << absent;
        ASSERT_EQ(DeleteFromParamList(absent), 0) << absent;
    }
}

TEST_F(Lists, HoldNamesInOrderAndFindExactlyThem) {
    Model model;
    for (int i = 0; i < 70; ++i) {
        const std::string name =
            (i % 7 == 0 ? "é" : "p.") + std::to_string(i * 11 % 70) + (i % 3 == 0 ? ".x" : "");
        model[name] = "v" + std::to_string(i);
        addLive(name, model[name]);
        sortParamList();
        ASSERT_NO_FATAL_FAILURE(expectHeld(model)) << i;
    }
    for (int at = 0; model.size() > 3;) { // without a sort
        const std::string name = std::next(model.begin(), at++ % 3)->first;
        EXPECT_EQ(DeleteFromParamList(name.c_str()), 1);
        model.erase(name);
        ASSERT_NO_FATAL_FAILURE(expectHeld(model)) << name;
    }
    for (const char* name : {"é8", "é81", "é9"}) { // at the end, where the order stays
        addLive(name, name);
        model[name] = name;
        ASSERT_NO_FATAL_FAILURE(expectHeld(model)) << name;
    }
}

TEST_F(Lists, AreLoggedAsDescribed) {
    DeviceLog log;
    calculateParamSize();
    addLive("ab", "c");
    addLive("d", "");
    calculateParamSize();
    dumpParamList();
    addGetAnswerElementWithNameAndValue("n", "v");
    const AnswerElement bare{newText("m"), nullptr};
    addGetAnswerElement(&bare);
    dumpGetAnswerList();
    addSetAnswerElementWithName("s");
    dumpSetAnswerList();
    std::string logged;
    for (const std::string& text : texts(log.take().syslog)) {
        logged += text.substr(text.find(']') + 1);
    }
    EXPECT_EQ(logged, "Parameter elements list size:0\nParameter elements list size:58\n"
                      "0. name:ab value:c \n1. name:d value: \n"
                      "0. name:n value:v\n1. name:m \n0. name:s value:\n");
}

TEST_F(Lists, GroupsAreDecidedByEightBytes) {
    struct {
        const char *group, *name;
        int member;
    } const cases[] = {
        {"network.ip", "network.ipv6.mode", 1},
        {"network.longer.than.eight", "network.y", 1},
        {"network", "network.x", 0},
        {"network.x", "network", 0},
        {"network", "network", 1},
        {"network", "networks", 0},
        {"", "", 1},
        {"", "a", 0},
        {"ab", "a", 0},
        {"Network.", "network.", 0},
        {"12345678", "1234567", 0},
    };
    for (const auto& c : cases) {
        addQryGroupElementWithName("zzz");
        addQryGroupElementWithName(c.group);
        EXPECT_EQ(IsGroupNode(c.name), c.member) << c.group << " and " << c.name;
        delQryGroupElement();
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
    auto answer = std::async(std::launch::async, searchValueForGetAnswerList);
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds{50}), std::future_status::timeout);
    replaceText(seekParamElement("a")->value, "new");
    leaveCriticalSection();
    EXPECT_EQ(answer.get(), 1);
    EXPECT_STREQ(getAnswerAt(0)->value, "new");
}

TEST_F(Lists, SignalsDuringAPassLeadToOneFurtherPass) {
    raiseFileEvent();
    EXPECT_TRUE(awaitFileEvent());
    raiseFileEvent();
    raiseFileEvent();
    endFileEvents();
    EXPECT_TRUE(awaitFileEvent());
    EXPECT_FALSE(awaitFileEvent());
    resumeFileEvents();
}

} // namespace
} // namespace kelconf::test
