// The bus as its clients see it: what kelconfd answers on each endpoint, what it announces and
// stores, how its brokers relay, and what a crowd does to it.
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "paths.h"
#include "support/device_log.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSet = "SET_ACTION";
constexpr const char* kDirect = "SET_ACTION_DIRECT";
constexpr const char* kNoDb = "SET_ACTION_NO_DB";

std::string item(const std::string& name, const std::string& value) {
    return "<parameter name=\"private." + name + "\">" + value + "</parameter>";
}

std::string change(const std::string& name, const std::string& prev, const std::string& value) {
    return "<parameter name=\"private." + name + "\" prev_value=\"" + prev + "\">" + value +
           "</parameter>";
}

std::string event(const std::string& changes) {
    return "<EVENT_ACTION>" + changes + "</EVENT_ACTION>";
}

std::string stored(const std::string& name) {
    const auto rows =
        sql(paths::kLiveDb, "SELECT VALUE FROM CONFIG WHERE NAME='private." + name + "'");
    return rows.empty() ? "(none)" : rows[0][0];
}

bool setOne(const std::string& root, const std::string& name, const std::string& value) {
    return set(root, {{"private." + name, value}});
}

// A service with these parameters, whose end is checked: a sanitizer reports by it.
class Service {
  public:
    explicit Service(const std::string& elements) {
        resetDevice(treeOf(elements + leaf("marker", "realtime", "")));
        daemon_.emplace();
        EXPECT_TRUE(daemon_->awaitReady());
    }
    ~Service() { EXPECT_EQ(daemon_->stop(), 0); }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    Service(Service&&) = delete;
    Service& operator=(Service&&) = delete;
    [[nodiscard]] pid_t process() const { return daemon_->process(); }

  private:
    std::optional<Daemon> daemon_;
};

// ---- Answers ----

TEST(Answers, FitEveryKindOfRequest) {
    const Service service(leaf("a", "int", "1") + leaf("b", "string", "x"));
    DeviceLog log;
    const std::string all = item("a", "1") + item("b", "it's &lt;&#xE9;&gt;") + item("marker", "");
    const std::string both = "<GET_RESPONSE_FAIL_ACTION><parameter name=\"none\"></parameter>" +
                             item("b", "x") + "</GET_RESPONSE_FAIL_ACTION>";
    struct {
        const char* address;
        std::string request, answer;
    } const cases[] = {
        {endpoints::kGet, "<GET_ACTION><p name='none'/><p name='private.b'/></GET_ACTION>", both},
        {endpoints::kGet, "<GET_ACTION><p name='none'/><p name='private.b'/></GET_ACTION>", both},
        {endpoints::kGet, "<GET_ACTION/>", "<GET_RESPONSE_ACTION/>"},
        {endpoints::kSet, setRequest(kSet, {{"private.b", "y"}}), kSetDone},
        {endpoints::kGet, getRequest({"private.b"}),
         "<GET_RESPONSE_ACTION>" + item("b", "y") + "</GET_RESPONSE_ACTION>"},
        {endpoints::kSet, setRequest(kDirect, {{"none", "1"}, {"private.b", "z"}}), kSetFailed},
        {endpoints::kSet, setRequest(kNoDb, {{"private.b", "it's &lt;&#xe9;&gt;"}}), kSetDone},
        {endpoints::kSet, setRequest("GET_ACTION", {{"private.a", "2"}}), kSetFailed},
        {endpoints::kSet, "<SET_ACTION_DIRECT/>", kSetDone},
        {endpoints::kGetAll, "<GET_ALL_ACTION/>",
         "<GET_RESPONSE_ALL_ACTION>" + all + "</GET_RESPONSE_ALL_ACTION>"},
        {endpoints::kGetAll, "<SET_ACTION/>",
         "<GET_RESPONSE_ALL_ACTION>" + all + "</GET_RESPONSE_ALL_ACTION>"},
        {endpoints::kGetGroup, "<GET_GROUP_ACTION><g name='private.all'/></GET_GROUP_ACTION>",
         "<GET_RESPONSE_GROUP_ACTION>" + all + "</GET_RESPONSE_GROUP_ACTION>"},
        {endpoints::kGetGroup, "<GET_GROUP_ACTION><g name='private'/></GET_GROUP_ACTION>",
         "<GET_RESPONSE_GROUP_ACTION/>"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ask(c.address, c.request), c.answer) << c.request;
    }
    EXPECT_EQ(stored("b"), "z");
    const std::string console = log.take().console;
    EXPECT_NE(console.find("it is GET_ACTION\n"), std::string::npos);
    EXPECT_NE(console.find("it is SET_ACTION\n"), std::string::npos);
}

TEST(Answers, ComeToWhatIsNoRequest) {
    const Service service("");
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
        EXPECT_EQ(ask(endpoints::kGet, request), "<GET_RESPONSE_ACTION/>");
        EXPECT_EQ(ask(endpoints::kSet, request), kSetFailed);
        EXPECT_EQ(ask(endpoints::kGetGroup, request), "<GET_RESPONSE_GROUP_ACTION/>");
        EXPECT_TRUE(ask(endpoints::kGetAll, request).ends_with("</GET_RESPONSE_ALL_ACTION>"));
    }
    const Peer peer{ZMQ_REQ, endpoints::kGet};
    for (int round = 0; round < 3; ++round) {
        peer.send({getRequest({"private.marker"}), "more", ""});
        EXPECT_EQ(bodyOf(peer.receive()),
                  "<GET_RESPONSE_ACTION>" + item("marker", "") + "</GET_RESPONSE_ACTION>");
    }
    for (int i = 0; i < 100; ++i) { // they leave before their answer
        Peer{ZMQ_REQ, endpoints::kGetAll}.send({"<GET_ALL_ACTION/>"});
    }
    EXPECT_TRUE(ask(endpoints::kGetAll, "<GET_ALL_ACTION/>").ends_with("ALL_ACTION>"));
}

// ---- Events and storage ----

class Events {
  public:
    Events() {
        do { // a subscription takes effect at some later moment
            setOne(kNoDb, "marker", "connected");
        } while (peer_.receive(std::chrono::milliseconds{50}).empty());
        while (!peer_.receive(std::chrono::milliseconds{50}).empty()) {
        }
    }
    // So many events, and that the next is one that is caused only now.
    std::vector<std::string> next(std::size_t count) {
        std::vector<std::string> events;
        for (std::size_t i = 0; i < count; ++i) {
            events.push_back(bodyOf(peer_.receive()));
        }
        const std::string mark = std::to_string(++marks_);
        setOne(kNoDb, "marker", mark);
        const std::string last = bodyOf(peer_.receive());
        if (!last.ends_with(">" + mark + "</parameter></EVENT_ACTION>")) {
            events.push_back(last);
        }
        return events;
    }

  private:
    Peer peer_{ZMQ_SUB, endpoints::kEvent};
    int marks_ = 0;
};

using Strings = std::vector<std::string>;

TEST(Sets, AreAnnouncedAndStoredAsTheirKindSays) {
    std::string elements = leaf("a", "int", "1") + leaf("b", "string", "x") +
                           leaf("big", "string", "") + leaf("r", "realtime", "") +
                           leaf("e1", "string", "") + leaf("e2", "string", "");
    const std::string half(390, 'h'); // with a name of 10: 500 bytes counted
    std::vector<Parameter> many;      // name 10, value 20, previous value 20: 150 bytes counted
    std::string batch;
    Strings of_many;
    for (int i = 0; i < 9; ++i) {
        const std::string name = "n" + std::to_string(i);
        elements += leaf(name, "string", std::string(20, 'o'));
        many.emplace_back("private." + name, std::string(20, 'v'));
        const std::string one = change(name, std::string(20, 'o'), std::string(20, 'v'));
        i < 6 ? static_cast<void>(batch += one) : of_many.push_back(event(one));
    }
    of_many.push_back(event(batch)); // what is over the limit goes out before it
    const std::string big(1000, 'v');
    const Service service(elements);
    Events events;
    struct {
        const char* root;
        std::vector<Parameter> values;
        Strings events;
        std::string name, stored; // of one parameter afterwards
    } const cases[] = {
        {kDirect,
         {{"private.a", "2"}, {"private.b", "it's 'q'"}, {"private.a", "3"}},
         {event(change("a", "1", "2") + change("b", "x", "it's 'q'") + change("a", "2", "3"))},
         "b",
         "it's 'q'"},
        {kDirect, {{"private.a", "3"}}, {}, "a", "3"},
        {kSet, {{"private.a", "4"}}, {event(change("a", "3", "4"))}, "a", "4"},
        {kSet, {{"private.a", "4"}}, {}, "a", "4"},
        {kSet, {{"private.r", "1"}}, {event(change("r", "", "1"))}, "r", ""},
        {kDirect, {{"private.r", "1"}}, {event(change("r", "1", "1"))}, "r", ""},
        {kNoDb, {{"private.a", "5"}, {"private.a", "5"}}, {event(change("a", "4", "5"))}, "a", "4"},
        {kDirect, {{"private.a", "5"}}, {}, "a", "4"},
        {kDirect, {{"private.big", big}}, {event(change("big", "", big))}, "big", big},
        {kDirect, {{"private.b", ""}}, {event(change("b", "it's 'q'", ""))}, "b", ""},
        {kDirect,
         {{"private.e1", half}, {"private.e2", half}},
         {event(change("e1", "", half) + change("e2", "", half))},
         "e2",
         half},
        {kDirect, many, of_many, "n8", std::string(20, 'v')},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(set(c.root, c.values));
        EXPECT_EQ(events.next(c.events.size()), c.events) << c.root << " " << c.values[0].first;
        EXPECT_EQ(stored(c.name), c.stored) << c.root << " " << c.values[0].first;
    }
    fs::remove(paths::kLiveDbMd5);
    EXPECT_EQ(ask(endpoints::kSet, "<SET_ACTION_DIRECT/>"), kSetDone);
    EXPECT_TRUE(exists(paths::kLiveDbMd5)) << "sealed by a pass that stored nothing";
}

TEST(Sets, DeleteStoredFilesButNothingElse) {
    const std::string storage = paths::kFileStorage;
    struct {
        std::string before, after, victim;
        bool deleted;
    } const cases[] = {
        {storage + "a", "plain", storage + "a", true},
        {storage + "sub/a", "", storage + "sub/a", true},
        {storage + "b", storage + "c", storage + "b", false},
        {storage + "b", storage + "b", storage + "b", false},
        {storage + "../victim.db", "", "/mnt/nand/victim.db", false},
        {storage + "sub/../../victim.db", "", "/mnt/nand/victim.db", false},
        {storage + "link/victim", "", "/tmp/outside/victim", false},
        {"x" + storage + "b", "", storage + "b", false},
        {"/tmp/.." + storage + "b", "", storage + "b", false},
        {storage + "sub/", "", storage + "sub", false},
        {storage, "", storage, false},
    };
    std::string elements;
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        elements += leaf("f" + std::to_string(i), "string", cases[i].before);
    }
    const Service service(elements);
    fs::create_directory("/mnt/nand/elsewhere"); // the directory itself may be a link
    fs::create_directory_symlink("/mnt/nand/elsewhere", storage.substr(0, storage.size() - 1));
    fs::create_directories(storage + "sub");
    fs::create_directories("/tmp/outside");
    fs::create_directory_symlink("/tmp/outside", storage + "link");
    Events events;
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        const std::string name = "f" + std::to_string(i);
        if (!fs::is_directory(c.victim)) {
            writeFile(c.victim, "x");
        }
        EXPECT_TRUE(setOne(kDirect, name, c.after));
        EXPECT_EQ(exists(c.victim), !c.deleted) << c.before << " to " << c.after;
        EXPECT_EQ(events.next(1), (Strings{event(change(name, c.before, c.after))}));
    }
}

TEST(Sets, OfPasswordsAreStoredScrambledAndNotLogged) {
    const Service service(leaf("user_passwd", "text", "") + leaf("user_password", "text", "") +
                          leaf("encrypt_campass", "int", "0"));
    DeviceLog log;
    EXPECT_TRUE(setOne(kDirect, "user_passwd", "it's me"));
    EXPECT_TRUE(setOne(kDirect, "user_password", "shown"));
    const LogRecords records = log.take();
    EXPECT_EQ(texts(records.syslog),
              (Strings{"[kelconfd]configuration changes=>item name:private.user_password "
                       "value:shown\n"}));
    EXPECT_EQ(records.console, "");
    EXPECT_EQ(stored("user_passwd"), "LDfqNuMwKA==");
}

// ---- Brokers ----

// Clock ticks of a process, of which a second has sysconf(_SC_CLK_TCK).
long cpuTicks(pid_t process) {
    std::ifstream in("/proc/" + std::to_string(process) + "/stat");
    std::string field;
    long user = 0;
    long system = 0;
    for (int i = 1; i < 14; ++i) {
        in >> field;
    }
    in >> user >> system;
    return user + system;
}

TEST(Brokers, HoldRequestsAtNoCostUntilSomebodyAnswers) {
    const Service service("");
    const std::pair<const char*, const char*> brokers[] = {
        {endpoints::kGetFrontEnd, endpoints::kGetBackEnd},
        {endpoints::kSetFrontEnd, endpoints::kSetBackEnd}};
    for (const auto& [front, back] : brokers) {
        const Parts question{"one", "", std::string(100'000, '3')};
        const Parts answer{"", "two"};
        const Peer peers[] = {{ZMQ_REQ, front}, {ZMQ_REQ, front}, {ZMQ_REQ, front}};
        for (const Peer& peer : peers) {
            peer.send(question);
        }
        Peer{ZMQ_REQ, front}.send({"gone"});
        const long before = cpuTicks(service.process());
        EXPECT_EQ(peers[0].receive(std::chrono::seconds{1}), Parts{});
        EXPECT_LT(cpuTicks(service.process()) - before, sysconf(_SC_CLK_TCK) / 2)
            << "a relay that spins takes the whole second";
        const Peer responder{ZMQ_REP, back};
        for (std::size_t answered = 0; answered < std::size(peers);) {
            const Parts received = responder.receive();
            responder.send(answer);
            if (received != Parts{"gone"}) {
                ASSERT_EQ(received, question);
                ++answered;
            }
        }
        for (const Peer& peer : peers) {
            EXPECT_EQ(peer.receive(), answer);
        }
    }
    const Peer waiting{ZMQ_REQ, endpoints::kGetFrontEnd}; // when the service ends
    waiting.send({"nobody", "answers"});
    EXPECT_EQ(waiting.receive(std::chrono::milliseconds{50}), Parts{});
}

// ---- Crowds ----

TEST(Crowd, OfAllKindsOfClientsIsServed) {
    const Service service(leaf("a", "int", "0") + leaf("b", "int", "0"));
    Events events;
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < 6; ++t) {
        clients.emplace_back([&, t] {
            const char* kinds[] = {kSet, kDirect, kNoDb};
            const Peer sets{ZMQ_REQ, endpoints::kSet};
            const Peer gets{ZMQ_REQ, endpoints::kGet};
            const Peer listings{ZMQ_REQ, endpoints::kGetAll};
            const Peer groups{ZMQ_REQ, endpoints::kGetGroup};
            const std::string name = t % 2 == 0 ? "private.a" : "private.b";
            for (int i = 0; i < 25; ++i) {
                sets.send({setRequest(kinds[t % 3], {{name, std::to_string(i)}})});
                gets.send({getRequest({"private.a", "private.b"})});
                listings.send({"<GET_ALL_ACTION/>"});
                groups.send({"<GET_GROUP_ACTION><g name='private.'/></GET_GROUP_ACTION>"});
                wrong += bodyOf(sets.receive()) != kSetDone;
                wrong += !bodyOf(gets.receive()).ends_with("</GET_RESPONSE_ACTION>");
                wrong += !bodyOf(listings.receive()).ends_with("</GET_RESPONSE_ALL_ACTION>");
                wrong += !bodyOf(groups.receive()).ends_with("</GET_RESPONSE_GROUP_ACTION>");
            }
        });
    }
    DeviceLog log;
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(events.next(1)[0].starts_with("<EVENT_ACTION><parameter name=\"private."));
}

TEST(Crowd, OfFiveThousandIdleConnectionsDoesNotEndTheService) {
    const Service service(leaf("a", "string", "a"));
    std::vector<Fd> idle;
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::strncpy(name.sun_path, "/tmp/kelbus/kelbus_getsock", sizeof name.sun_path - 1);
    for (int i = 0; i < 5000; ++i) {
        idle.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(connect(idle.back().get(), reinterpret_cast<const sockaddr*>(&name), sizeof name),
                  0)
            << i << ": " << std::strerror(errno);
    }
    EXPECT_EQ(valueOf("private.a"), "a") << "with all of them connected";
    EXPECT_TRUE(setOne(kDirect, "a", "b"));
    idle.clear();
    EXPECT_EQ(valueOf("private.a"), "b") << "with all of them gone";
}

} // namespace
} // namespace kelconf::test
