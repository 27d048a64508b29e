// The endpoints over real sockets, in this process: requests of every kind, what the locks promise
// between them, the brokers, and the end of the loops.

#include "bus/bus_context.h"
#include "bus/event_publisher.h"
#include "bus/request_loops.h"
#include "bus/service_locks.h"
#include "bus_client.h"
#include "db/live_db.h"
#include "files/backup.h"
#include "live_values.h"
#include "paths.h"
#include "service/write_back.h"
#include "support/files.h"
#include "support/records.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <future>
#include <thread>

namespace kelconf::test {
namespace {

const std::string kSetDone = "<SET_RESPONSE_ACTION/>";
const std::string kSetFailed = "<SET_RESPONSE_FAIL_ACTION/>";

std::string getAnswer(const std::string& name, const std::string& value) {
    return "<GET_RESPONSE_ACTION><parameter name=\"" + name + "\">" + value +
           "</parameter></GET_RESPONSE_ACTION>";
}

class Loops : public testing::Test {
  protected:
    void SetUp() override {
        resetDevice();
        emptyLists();
        std::filesystem::create_directories("/tmp/kelbus");
        createSQLTable();
        for (const char* name : {"a", "b", "network.x"}) {
            insertSQLEntry(name, "1", "int");
            addLive(name, "1");
        }
        sortParamList();
        allowRequestLoops();
        resumeFileEvents();
        ASSERT_TRUE(initBusContext());
        initEventSocket();
        for (auto* run :
             {initGetSock, initSetSock, initGetAllSock, initGetGroupSock, saveFileTask}) {
            threads_.emplace_back(run);
        }
        brokers_.emplace_back([] { EXPECT_EQ(initGetSyncSock(), 0); });
        brokers_.emplace_back([] { EXPECT_EQ(initSetSyncSock(), 0); });
        awaitRequestLoops(6);
    }
    void TearDown() override {
        stopRequestLoops();
        endFileEvents();
        for (std::thread& thread : threads_) {
            thread.join();
        }
        closeEventSocket(0);
        shutdownBusContext();
        for (std::thread& broker : brokers_) {
            broker.join();
        }
        closeBusContext();
        emptyLists();
    }
    std::string get(const std::string& request) const {
        return body(client_.ask(endpoints::kGet, request));
    }
    std::string set(const std::string& request) const {
        return body(client_.ask(endpoints::kSet, request));
    }

    Client client_;
    std::vector<std::thread> threads_;
    std::vector<std::thread> brokers_;
};

TEST_F(Loops, AnswerEveryKindOfRequest) {
    EXPECT_EQ(get(getRequest("a")), getAnswer("a", "1"));
    const std::string two = "<GET_ACTION><p name='none'/><p name='b'/></GET_ACTION>";
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(get(two), "<GET_RESPONSE_FAIL_ACTION><parameter name=\"none\"></parameter>"
                            "<parameter name=\"b\">1</parameter></GET_RESPONSE_FAIL_ACTION>");
    }
    for (const char* kind : {"SET_ACTION", "SET_ACTION_DIRECT", "SET_ACTION_NO_DB"}) {
        EXPECT_EQ(set(setRequest(kind, "a", kind)), kSetDone);
        EXPECT_EQ(get(getRequest("a")), getAnswer("a", kind));
        EXPECT_EQ(set(setRequest(kind, "none", "1")), kSetFailed);
    }
    EXPECT_EQ(set(setRequest("GET_ACTION", "a", "x")), kSetFailed);
    EXPECT_EQ(sql(paths::kLiveDb, "SELECT VALUE FROM CONFIG WHERE NAME='a'"),
              (SqlRows{{"SET_ACTION_DIRECT"}}));
    const std::string all =
        "<GET_RESPONSE_ALL_ACTION><parameter name=\"a\">SET_ACTION_NO_DB</parameter>"
        "<parameter name=\"b\">1</parameter><parameter name=\"network.x\">1</parameter>"
        "</GET_RESPONSE_ALL_ACTION>";
    EXPECT_EQ(body(client_.ask(endpoints::kGetAll, "<GET_ALL_ACTION/>")), all);
    EXPECT_EQ(body(client_.ask(endpoints::kGetAll, "<GET_ACTION/>")), all);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(body(client_.ask(endpoints::kGetGroup,
                                   "<GET_GROUP_ACTION><g name='network.all'/></GET_GROUP_ACTION>")),
                  "<GET_RESPONSE_GROUP_ACTION><parameter "
                  "name=\"network.x\">1</parameter></GET_RESPONSE_GROUP_ACTION>");
        EXPECT_EQ(body(client_.ask(endpoints::kGetGroup, "<GET_GROUP_ACTION/>")),
                  "<GET_RESPONSE_GROUP_ACTION/>");
    }
}

TEST_F(Loops, AnswerWhatIsNoRequest) {
    const std::string requests[] = {
        "",
        "x",
        std::string("\0\0", 2),
        "<GET_ACTION>",
        "<OTHER/>",
        "\xff\xfe",
        "<!DOCTYPE x [<!ENTITY e SYSTEM 'file:///etc/passwd'>]><GET_ACTION><p "
        "name='&e;'/></GET_ACTION>",
        std::string(17 * 1024 * 1024, 'x')};
    for (const std::string& request : requests) {
        EXPECT_EQ(get(request), "<GET_RESPONSE_ACTION/>") << request.substr(0, 40);
        EXPECT_EQ(set(request), kSetFailed) << request.substr(0, 40);
        EXPECT_EQ(body(client_.ask(endpoints::kGetGroup, request)), "<GET_RESPONSE_GROUP_ACTION/>");
        EXPECT_TRUE(
            client_.ask(endpoints::kGetAll, request).ends_with("</GET_RESPONSE_ALL_ACTION>\n"));
    }
}

TEST_F(Loops, TakeTheFirstOfSeveralParts) {
    const Socket socket = client_.connect(ZMQ_REQ, endpoints::kGet);
    const std::string request = getRequest("a");
    for (int round = 0; round < 3; ++round) {
        zmq_send(socket.get(), request.data(), request.size(), ZMQ_SNDMORE);
        zmq_send(socket.get(), "more", 4, ZMQ_SNDMORE);
        zmq_send(socket.get(), "", 0, 0);
        EXPECT_EQ(body(receiveText(socket.get())), getAnswer("a", "1"));
    }
}

TEST_F(Loops, ASetWaitsForTheListing) {
    enterGetAllCriticalSection();
    std::future<std::string> answer = std::async(std::launch::async, [&] {
        return Client{}.ask(endpoints::kSet, setRequest("SET_ACTION", "a", "2"));
    });
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    EXPECT_EQ(live("a"), "1") << "not applied while a listing is made";
    leaveGetAllCriticalSection();
    EXPECT_EQ(body(answer.get()), kSetDone);
}

TEST_F(Loops, ServeManyClientsWithEventsAndBackups) {
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::thread backups([&] {
        while (!done) {
            createBackupDBTask();
        }
    });
    std::vector<std::thread> clients;
    for (int t = 0; t < 6; ++t) {
        clients.emplace_back([&, t] {
            const Client client;
            const char* kinds[] = {"SET_ACTION", "SET_ACTION_DIRECT", "SET_ACTION_NO_DB"};
            for (int i = 0; i < 15; ++i) {
                const std::string request =
                    setRequest(kinds[t % 3], t % 2 == 0 ? "a" : "b", std::to_string(i));
                wrong += body(client.ask(endpoints::kSet, request)) != kSetDone;
                wrong += !client.ask(endpoints::kGet, getRequest("a"))
                              .ends_with("</GET_RESPONSE_ACTION>\n");
                wrong +=
                    !client.ask(endpoints::kGetAll, "<GET_ALL_ACTION/>").ends_with("ALL_ACTION>\n");
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    done = true;
    backups.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(Loops, ForgetPeersThatLeaveBeforeTheirAnswer) {
    for (int i = 0; i < 100; ++i) {
        const Socket socket = client_.connect(ZMQ_REQ, endpoints::kGetAll);
        zmq_send(socket.get(), "<GET_ALL_ACTION/>", 17, 0);
    }
    EXPECT_TRUE(client_.ask(endpoints::kGetAll, "<GET_ALL_ACTION/>").ends_with("ALL_ACTION>\n"));
}

// Parts come and go as they were sent.
void sendParts(const Socket& socket, const std::vector<std::string>& parts) {
    for (std::size_t i = 0; i < parts.size(); ++i) {
        zmq_send(socket.get(), parts[i].data(), parts[i].size(),
                 i + 1 < parts.size() ? ZMQ_SNDMORE : 0);
    }
}

std::vector<std::string> receiveParts(const Socket& socket) {
    std::vector<std::string> parts;
    int more = 1;
    for (std::size_t size = sizeof more; more != 0 && parts.size() < 9;) {
        parts.push_back(receiveText(socket.get()));
        zmq_getsockopt(socket.get(), ZMQ_RCVMORE, &more, &size);
    }
    return parts;
}

std::chrono::microseconds cpuTime() {
    rusage use{};
    getrusage(RUSAGE_SELF, &use);
    return std::chrono::seconds{use.ru_utime.tv_sec + use.ru_stime.tv_sec} +
           std::chrono::microseconds{use.ru_utime.tv_usec + use.ru_stime.tv_usec};
}

class Brokers : public Loops,
                public testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(Brokers, HoldRequestsAtNoCostUntilSomebodyAnswers) {
    const auto [front, back] = GetParam();
    const std::vector<std::string> question{"one", "", std::string(100'000, '3')};
    const std::vector<std::string> answer{"", "two"};
    std::vector<Socket> requesters;
    for (int i = 0; i < 20; ++i) {
        requesters.push_back(client_.connect(ZMQ_REQ, front));
        sendParts(requesters.back(), question);
    }
    { // a peer that leaves while it waits
        const Socket gone = client_.connect(ZMQ_REQ, front);
        sendParts(gone, {"gone"});
    }
    setSocketOption(requesters[0].get(), ZMQ_RCVTIMEO, 1000);
    const auto before = cpuTime();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(receiveText(requesters[0].get()).starts_with("(no reply"));
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_LT(cpuTime() - before, waited / 2) << "a relay that spins takes all of it";
    setSocketOption(requesters[0].get(), ZMQ_RCVTIMEO, kPatienceMs);
    const Socket responder = client_.connect(ZMQ_REP, back);
    for (int answered = 0; answered < 20;) {
        const auto received = receiveParts(responder);
        sendParts(responder, answer);
        if (received != std::vector<std::string>{"gone"}) {
            ASSERT_EQ(received, question);
            ++answered;
        }
    }
    for (const Socket& requester : requesters) {
        EXPECT_EQ(receiveParts(requester), answer);
    }
}

TEST_P(Brokers, EndWhileARequestWaits) {
    const Socket requester = client_.connect(ZMQ_REQ, GetParam().first);
    sendParts(requester, {"nobody", "answers"});
    setSocketOption(requester.get(), ZMQ_RCVTIMEO, 50);
    EXPECT_TRUE(receiveText(requester.get()).starts_with("(no reply"));
    // The fixture's end is the check: it waits for the brokers.
}

INSTANTIATE_TEST_SUITE_P(Both, Brokers,
                         testing::Values(std::pair{endpoints::kGetFrontEnd, endpoints::kGetBackEnd},
                                         std::pair{endpoints::kSetFrontEnd,
                                                   endpoints::kSetBackEnd}));

TEST(Publisher, LosesEventsQuietlyWithoutASocket) {
    eventSock = nullptr;
    EXPECT_EQ(sendEvent("a", "1", nullptr), 0);
}

TEST(PublisherDeathTest, EndsTheProcessWithoutItsDirectory) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::filesystem::remove_all("/tmp/kelbus");
            initBusContext();
            initEventSocket();
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace kelconf::test
