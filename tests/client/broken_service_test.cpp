// libkelbus with a service that answers wrongly, late or not at all; and its two readers of a reply
// against each other.
#include "client/bus_session.h"
#include "client/reply_document.h"
#include "client/reply_scan.h"

#include <zmq.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>

namespace kelconf::test {
namespace {

const std::string kHead = "<?xml version=\"1.0\"?>\n";

std::string valueReply(const std::string& name, const std::string& value) {
    return kHead + "<GET_RESPONSE_ACTION><parameter name=\"" + name + "\">" + value +
           "</parameter></GET_RESPONSE_ACTION>\n";
}

// A REP socket in the place of the GET endpoint. Answers with what it is given; an empty answer is
// none, and it takes no further request.
class FakeService {
  public:
    FakeService() {
        std::filesystem::create_directories("/tmp/kelbus");
        EXPECT_EQ(zmq_bind(socket_, "ipc:///tmp/kelbus/kelbus_getsock"), 0);
    }
    ~FakeService() { end(); }
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;
    FakeService(FakeService&&) = delete;
    FakeService& operator=(FakeService&&) = delete;

    void takeRequest() {
        char byte = 0;
        EXPECT_GE(zmq_recv(socket_, &byte, 1, 0), 0);
    }
    void answer(const std::string& bytes, int flags = 0) {
        zmq_send(socket_, bytes.data(), bytes.size(), flags);
    }
    void end() {
        if (socket_ != nullptr) {
            const int none = 0;
            zmq_setsockopt(socket_, ZMQ_LINGER, &none, sizeof none);
            zmq_close(socket_);
            zmq_ctx_term(context_);
            socket_ = nullptr;
        }
    }

  private:
    void* context_ = zmq_ctx_new();
    void* socket_ = zmq_socket(context_, ZMQ_REP);
};

// Runs `service` beside one GET of the name "n".
std::string askedOf(BusSession& bus, int limit, const std::function<void()>& service) {
    std::thread other{service};
    std::string answer = bus.value("n", limit);
    other.join();
    return answer;
}

TEST(BrokenService, IsToldFromAGoodOne) {
    const std::string whole = valueReply("n", "v");
    const std::pair<std::string, kelbus_error> replies[] = {
        {"", KELBUS_BROKEN_REPLY},
        {"rubbish", KELBUS_BROKEN_REPLY},
        {whole.substr(0, whole.size() / 2), KELBUS_BROKEN_REPLY},
        {whole.substr(0, whole.size() - 2), KELBUS_BROKEN_REPLY},
        {kHead + "<GET_RESPONSE_ALL_ACTION/>\n", KELBUS_BROKEN_REPLY},
        {kHead + "<GET_RESPONSE_ACTION/>\n", KELBUS_BROKEN_REPLY},
        {valueReply("m", "v"), KELBUS_BROKEN_REPLY},
        {kHead + "<!DOCTYPE d [<!ENTITY e \"v\">]>" + valueReply("n", "&e;").substr(kHead.size()),
         KELBUS_BROKEN_REPLY},
        {valueReply("n", "&undeclared;"), KELBUS_BROKEN_REPLY},
        {valueReply("n", std::string(1, '\0')), KELBUS_BROKEN_REPLY},
        {kHead + "<GET_RESPONSE_FAIL_ACTION><parameter name=\"n\"/></GET_RESPONSE_FAIL_ACTION>\n",
         KELBUS_UNKNOWN_NAME}};
    FakeService service;
    BusSession bus;
    for (const auto& [reply, error] : replies) {
        EXPECT_EQ(askedOf(bus, kLimit, [&] { service.takeRequest(), service.answer(reply); }),
                  kelbus_strerror(error))
            << reply;
    }
    EXPECT_EQ(askedOf(bus, kLimit,
                      [&] {
                          service.takeRequest();
                          service.answer(whole, ZMQ_SNDMORE);
                          service.answer(whole);
                      }),
              kelbus_strerror(KELBUS_BROKEN_REPLY));
    EXPECT_EQ(askedOf(bus, kLimit, [&] { service.takeRequest(), service.answer(whole); }), "v");
    // XML in another form is as good.
    const std::string other =
        "<?xml version='1.0' encoding='UTF-8'?><!-- c --><GET_RESPONSE_ACTION >\n "
        "<p name='n'>a<![CDATA[<b>]]><i>c</i></p> </GET_RESPONSE_ACTION>";
    EXPECT_EQ(askedOf(bus, kLimit, [&] { service.takeRequest(), service.answer(other); }), "a<b>c");
}

// An answer that comes after the limit must not be taken for that of the next request.
TEST(BrokenService, MayAnswerTooLate) {
    FakeService service;
    BusSession bus;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(bus.value("n", 120), kelbus_strerror(KELBUS_TIMEOUT));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds{120});
    EXPECT_EQ(askedOf(bus, kLimit,
                      [&] {
                          service.takeRequest();
                          service.answer(valueReply("n", "late"));
                          service.takeRequest();
                          service.answer(valueReply("n", "in time"));
                      }),
              "in time");
    EXPECT_EQ(bus.value("n", 0), kelbus_strerror(KELBUS_TIMEOUT));
}

TEST(BrokenService, MayEndBeforeItAnswers) {
    for (const int limit : {kLimit, -1}) {
        FakeService service;
        BusSession bus;
        EXPECT_EQ(askedOf(bus, limit, [&] { service.takeRequest(), service.end(); }),
                  kelbus_strerror(KELBUS_NO_SERVICE));
        // Gone and back at once: the request is lost all the same.
        std::optional<FakeService> again;
        again.emplace();
        EXPECT_EQ(askedOf(bus, limit,
                          [&] {
                              again->takeRequest();
                              again->end();
                              again.emplace();
                          }),
                  kelbus_strerror(KELBUS_NO_SERVICE));
    }
}

Pairs pairsOf(const ReplyDocument& document) {
    Pairs pairs{{document.root, ""}};
    for (const ReplyParameter& parameter : document.parameters) {
        pairs.emplace_back(document.text(parameter.name), document.text(parameter.value));
        pairs.emplace_back("prev", document.text(parameter.prev_value));
    }
    return pairs;
}

// What the scanner accepts reads as the parser reads it: good documents with bytes changed, taken
// away and put in at random places.
TEST(ReplyReaders, Agree) {
    const std::string good[] = {
        kHead + "<SET_RESPONSE_ACTION/>\n",
        kHead +
            "<GET_RESPONSE_FAIL_ACTION><parameter name=\"a\"></parameter><parameter name=\"b\"/>"
            "</GET_RESPONSE_FAIL_ACTION>\n",
        kHead +
            "<EVENT_ACTION><parameter name=\"a&#10;&quot;b\" prev_value=\"&lt;&#xE9;\">1 &#13;\n\t"
            "&amp;&gt;&#x1F4F7;\"</parameter><parameter name=\"network.name\" prev_value=\"before "
            "it\">after it was</parameter>"
            "</EVENT_ACTION>\n"};
    const std::string bytes = "<>&;\"'#x/ =\n\r\t]!?aAp0:\x01\x7F\xC3";
    std::mt19937 random{1}; // the same documents in each run
    const auto below = [&](std::size_t end) { return random() % end; };
    ReplyReader reader;
    int accepted = 0;
    for (int i = 0; i < 60'000; ++i) {
        std::string document = good[below(std::size(good))];
        for (std::size_t changes = i < 3 ? 0 : 1 + below(3); changes > 0; --changes) {
            const std::size_t at = below(document.size());
            const std::size_t length = below(2);
            document.replace(at, length,
                             below(3) == 0 ? "" : std::string(1, bytes[below(bytes.size())]));
        }
        ReplyDocument scanned;
        if (scanReply(document, scanned)) {
            ++accepted;
            ReplyDocument parsed;
            ASSERT_TRUE(reader.parse(document, parsed)) << document;
            ASSERT_EQ(pairsOf(scanned), pairsOf(parsed)) << document;
        }
    }
    EXPECT_GT(accepted, 3'000);
    for (const std::string& document : good) {
        ReplyDocument scanned;
        EXPECT_TRUE(scanReply(document, scanned)) << document;
    }
}

} // namespace
} // namespace kelconf::test
