// The bus as its clients see it: what kelconfd answers on each endpoint, what it announces and
// stores, how its brokers relay, and what a crowd does to it.
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "files/stored_file.h"
#include "paths.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <optional>
#include <regex>
#include <thread>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSet = "SET_ACTION";
constexpr const char* kDirect = "SET_ACTION_DIRECT";
constexpr const char* kNoDb = "SET_ACTION_NO_DB";

// "a=1|b=|" as parameters of `private`.
std::vector<Parameter> parameters(const std::string& text) {
    std::vector<Parameter> all;
    std::istringstream in{text};
    for (std::string name, value; std::getline(in, name, '=') && std::getline(in, value, '|');) {
        all.emplace_back("private." + name, value);
    }
    return all;
}

// A document with "NAME:BEFORE>VALUE;" for each parameter of `private`.
std::string shortened(const std::string& document) {
    static const std::regex parameter{"<parameter name=\"private\\.(\\w+)\""
                                      "(?: prev_value=\"([^\"]*)\")?>([^<]*)</parameter>"};
    return std::regex_replace(document, parameter, "$1:$2>$3;");
}

void setLimit(rlim_t descriptors) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min(descriptors, limit.rlim_max);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

class Bus : public testing::Test {
  protected:
    void SetUp() override {
        std::string elements = leaf("a", "int", "1") + leaf("b", "string", "x");
        for (const char* name : {"big", "e1", "e2", "file", "user_passwd", "user_password"}) {
            elements += leaf(name, "string", "");
        }
        for (int i = 0; i < 9; ++i) {
            elements += leaf("n" + std::to_string(i), "string", std::string(20, 'o'));
        }
        resetDevice(treeOf(elements + leaf("r", "realtime", "") + leaf("marker", "realtime", "")));
        setLimit(1024); // as a shell passes it on
        service.emplace();
        setLimit(RLIM_INFINITY);
        ASSERT_TRUE(service->awaitReady());
    }
    void TearDown() override { EXPECT_EQ(service->stop(), 0) << "a sanitizer reports by it"; }
    std::optional<Daemon> service;
};

// ---- Answers ------------------------------------------------------------------------------------

// Documents: service/bus_xml_tests.cpp.
TEST_F(Bus, AnswersWhateverIsAsked) {
    const std::string good = "<GET_ACTION><p name='private.b'/><p name='private.r'/></GET_ACTION>";
    const std::string answer = "<GET_RESPONSE_ACTION>b:>x;r:>;</GET_RESPONSE_ACTION>";
    const std::string get_nothing = "<GET_RESPONSE_ACTION/>";
    struct {
        const char* address;
        std::string request, answer;
    } const cases[] = {
        {endpoints::kGet, good, answer},
        {endpoints::kGet, "<GET_ACTION>", get_nothing},
        {endpoints::kGet, std::string(17 * 1024 * 1024, 'x'), get_nothing},
        {endpoints::kSet, "", kSetFailed},
        {endpoints::kSet, setRequest(kDirect, {{"none", "1"}, {"private.b", "y"}}), kSetFailed},
        {endpoints::kSet, "<SET_ACTION/>" + std::string(65536, ' ') + "x", kSetFailed},
        {endpoints::kGetGroup, std::string(2, '\0'), "<GET_RESPONSE_GROUP_ACTION/>"},
        {endpoints::kGetAll, "<OTHER/>", "<GET_RESPONSE_ALL_ACTION>a:>1;b:>y;big:>;"},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(shortened(ask(c.address, c.request)).starts_with(c.answer))
            << c.request.substr(0, 100);
    }
    const Peer peer{ZMQ_REQ, endpoints::kGet};
    for (int round = 0; round < 3; ++round) {
        peer.send({good, "more", ""});
        EXPECT_EQ(shortened(bodyOf(peer.receive())), shortened(ask(endpoints::kGet, good)));
    }
    for (int i = 0; i < 100; ++i) { // they leave before their answer
        Peer{ZMQ_REQ, endpoints::kGetAll}.send({"<GET_ALL_ACTION/>"});
    }
    EXPECT_TRUE(ask(endpoints::kGetAll, "<GET_ALL_ACTION/>").ends_with("ALL_ACTION>"));
}

// ---- Events and storage -------------------------------------------------------------------------

class Events {
  public:
    Events() {
        do { // a subscription takes effect at some later moment
            set(kNoDb, parameters("marker=now|"));
        } while (peer_.receive(std::chrono::milliseconds{50}).empty());
        while (!peer_.receive(std::chrono::milliseconds{50}).empty()) {
        }
    }
    // As much as is expected, and that the next is one that is caused only then.
    std::string next(const std::string& expected) {
        std::string all;
        while (all.size() < expected.size()) {
            all += shortened(bodyOf(peer_.receive())) + "; ";
        }
        set(kNoDb, parameters("marker=now|"));
        const std::string last = shortened(bodyOf(peer_.receive()));
        return last.find("marker:") == std::string::npos ? all + last : all;
    }

  private:
    Peer peer_{ZMQ_SUB, endpoints::kEvent};
};

std::string event(const std::string& changes) {
    return "<EVENT_ACTION>" + changes + "</EVENT_ACTION>; ";
}

TEST_F(Bus, AnnouncesAndStoresAsTheKindOfASetSays) {
    const std::string big(1000, 'v');
    const std::string half(390, 'h'); // with a name of 10: 500 bytes counted
    std::string many, of_many, batch; // name 10, value 20, previous value 20: 150 bytes counted
    for (int i = 0; i < 9; ++i) {
        const std::string name = "n" + std::to_string(i);
        many.append(name).append("=vvvvvvvvvvvvvvvvvvvv|");
        const std::string one = name + ":oooooooooooooooooooo>vvvvvvvvvvvvvvvvvvvv;";
        i < 6 ? batch += one : of_many += event(one); // what is over the limit goes out before
    }
    const std::string first = std::string{paths::kFileStorage} + "a";
    const std::string second = std::string{paths::kFileStorage} + "b";
    fs::create_directories(paths::kFileStorage);
    writeFile(first, "stays: the next value names a file, too");
    writeFile(second, "goes");
    Events events;
    struct {
        const char* root;
        std::string values, events, stored;
    } const cases[] = {
        {kDirect, "a=2|b=it's 'q'|a=3|", event("a:1>2;b:x>it's 'q';a:2>3;"), "b=it's 'q'|a=3|"},
        {kDirect, "a=3|", "", "a=3|"},
        {kSet, "a=4|", event("a:3>4;"), "a=4|"},
        {kSet, "a=4|", "", "a=4|"},
        {kSet, "r=1|", event("r:>1;"), "r=|"},
        {kDirect, "r=1|", event("r:1>1;"), "r=|"},
        {kNoDb, "a=5|a=5|", event("a:4>5;"), "a=4|"},
        {kDirect, "a=5|", "", "a=4|"},
        {kDirect, "big=" + big + "|", event("big:>" + big + ";"), "big=" + big + "|"},
        {kDirect, "b=|", event("b:it's 'q'>;"), "b=|"},
        {kDirect, "e1=" + half + "|e2=" + half + "|", event("e1:>" + half + ";e2:>" + half + ";"),
         "e2=" + half + "|"},
        {kDirect, many, of_many + event(batch), "n8=vvvvvvvvvvvvvvvvvvvv|"},
        {kDirect, "file=" + first + "|", event("file:>" + first + ";"), ""},
        {kDirect, "file=" + first + "|", event("file:" + first + ">" + first + ";"), ""},
        {kDirect, "file=" + second + "|", event("file:" + first + ">" + second + ";"), ""},
        {kNoDb, "file=none|", event("file:" + second + ">none;"), "file=" + second + "|"},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(set(c.root, parameters(c.values)));
        if (c.root == kSet) { // stored when it is announced, the others when they are answered
            EXPECT_EQ(events.next(c.events), c.events) << c.values;
        }
        for (const auto& [name, value] : parameters(c.stored)) {
            EXPECT_EQ(storedIn(paths::kLiveDb, name), value) << c.root << " " << c.values;
        }
        if (c.root != kSet) {
            EXPECT_EQ(events.next(c.events), c.events) << c.root << " " << c.values;
        }
    }
    EXPECT_TRUE(exists(first) && !exists(second));
    fs::remove(paths::kLiveDbMd5);
    EXPECT_EQ(ask(endpoints::kSet, "<SET_ACTION_DIRECT/>"), kSetDone);
    EXPECT_TRUE(exists(paths::kLiveDbMd5)) << "sealed by a pass that stored nothing";
    DeviceLog log;
    EXPECT_TRUE(set(kDirect, parameters("user_passwd=secret|user_password=shown|")));
    EXPECT_EQ(texts(log.take().syslog),
              Parts{"[kelconfd]configuration changes=>item name:private.user_password "
                    "value:shown\n"});
}

TEST(StoredFiles, AreDeletedButNothingElse) {
    resetDevice();
    const std::string storage = paths::kFileStorage;
    fs::create_directories("/mnt/nand/elsewhere/sub"); // the directory itself may be a link
    fs::create_directory_symlink("/mnt/nand/elsewhere", storage.substr(0, storage.size() - 1));
    fs::create_directories("/tmp/outside");
    fs::create_directory_symlink("/tmp/outside", storage + "link");
    struct {
        std::string value, victim;
        bool deleted;
    } const cases[] = {
        {storage + "a", storage + "a", true},
        {storage + "sub/a", storage + "sub/a", true},
        {storage + "../victim.db", "/mnt/nand/victim.db", false},
        {storage + "sub/../../victim.db", "/mnt/nand/victim.db", false},
        {storage + "link/victim", "/tmp/outside/victim", false},
        {"/tmp/.." + storage + "b", storage + "b", false},
        {storage + "sub/", storage + "sub", false},
        {storage, storage, false},
    };
    for (const auto& c : cases) {
        if (!fs::is_directory(c.victim)) {
            writeFile(c.victim, "x");
        }
        deleteStoredFile(c.value.c_str());
        EXPECT_EQ(exists(c.victim), !c.deleted) << c.value;
    }
}

// ---- Brokers and crowds -------------------------------------------------------------------------

// Of a process, in clock ticks, of which a second has sysconf(_SC_CLK_TCK).
long processorTime(pid_t process) {
    std::ifstream in("/proc/" + std::to_string(process) + "/stat");
    const Parts fields{std::istream_iterator<std::string>{in}, {}};
    return std::stol(fields.at(13)) + std::stol(fields.at(14));
}

TEST_F(Bus, HoldsRequestsAtNoCostUntilSomebodyAnswers) {
    const Parts question{"one", "", std::string(100'000, '3')};
    const Parts answer{"", "two"};
    for (const auto& [front, back] : {std::pair{endpoints::kGetFrontEnd, endpoints::kGetBackEnd},
                                      {endpoints::kSetFrontEnd, endpoints::kSetBackEnd}}) {
        const Peer peers[] = {{ZMQ_REQ, front}, {ZMQ_REQ, front}};
        peers[0].send(question);
        Peer{ZMQ_REQ, front}.send({"gone"});
        peers[1].send(question);
        const long before = processorTime(service->process());
        EXPECT_EQ(peers[0].receive(std::chrono::seconds{1}), Parts{});
        EXPECT_LT(processorTime(service->process()) - before, sysconf(_SC_CLK_TCK) / 2)
            << "a relay that spins takes the whole second";
        const Peer responder{ZMQ_REP, back};
        for (int questions = 0; questions < 2;) {
            const Parts received = responder.receive();
            responder.send(answer);
            ASSERT_TRUE(received == question || received == Parts{"gone"});
            questions += received == question ? 1 : 0;
        }
        EXPECT_EQ(peers[0].receive(), answer);
        EXPECT_EQ(peers[1].receive(), answer);
    }
    const Peer waiting{ZMQ_REQ, endpoints::kGetFrontEnd}; // when the service ends
    waiting.send({"nobody", "answers"});
    EXPECT_EQ(waiting.receive(std::chrono::milliseconds{50}), Parts{});
}

// All loops at once, for the thread sanitizer above all.
TEST_F(Bus, ServesACrowdOfAllKindsOfClients) {
    std::atomic<int> right{0};
    {
        std::vector<std::jthread> clients;
        for (const char* kind : {kSet, kDirect, kNoDb, kSet}) {
            clients.emplace_back([&right, kind] {
                const std::string group =
                    "<GET_GROUP_ACTION><g name='private.'/></GET_GROUP_ACTION>";
                for (int i = 0; i < 25; ++i) {
                    right += set(kind, parameters("a=" + std::to_string(i) + "|")) ? 1 : 0;
                    right += valueOf("private.a") != "?" ? 1 : 0;
                    right += ask(endpoints::kGetAll, "<GET_ALL_ACTION/>").ends_with("ON>") ? 1 : 0;
                    right += ask(endpoints::kGetGroup, group).ends_with("ON>") ? 1 : 0;
                }
            });
        }
    }
    EXPECT_EQ(right, 4 * 25 * 4);
}

TEST_F(Bus, SurvivesFiveThousandIdleConnections) {
    std::vector<Fd> idle;
    const auto [name, size] = socketAddress("/tmp/kelbus/kelbus_getsock");
    for (int i = 0; i < 5000; ++i) {
        idle.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(connect(idle.back().get(), reinterpret_cast<const sockaddr*>(&name), size), 0)
            << i << ": " << std::strerror(errno);
    }
    EXPECT_EQ(valueOf("private.a"), "1") << "with all of them connected";
    EXPECT_TRUE(set(kDirect, parameters("a=2|")));
    idle.clear();
    EXPECT_EQ(valueOf("private.a"), "2") << "with all of them gone";
}

} // namespace
} // namespace kelconf::test
