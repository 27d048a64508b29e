// The clients of libkelbus in many threads, and with a service that answers wrongly, late or not at
// all; and the two readers of a reply against each other. For the sanitizers too; what its calls
// come to with the real service, python_test.py tells.
#include "client/reply_document.h"
#include "client/reply_scan.h"
#include "daemon/daemon_process.h"

#include <gtest/gtest.h>
#include <kelbus.h>
#include <zmq.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <thread>

namespace kelconf::test {
namespace {

constexpr int kLimit = 60'000; // ms: the guard against a hang

using BusSession = std::unique_ptr<kelbus, void (*)(kelbus*)>;

BusSession openBus() {
    kelbus* opened = nullptr;
    EXPECT_EQ(kelbus_open(&opened), KELBUS_OK);
    return {opened, kelbus_close};
}

// "name=value;" for each, "name?" for an unknown one, then the error. Releases the values.
std::string taken(kelbus_error error, kelbus_values* values) {
    constexpr std::array kWords{"", "-absent", "-timeout", "-unknown", "-refused", "-broken"};
    std::string text;
    for (std::size_t i = 0; values != nullptr && i < values->count; ++i) {
        const auto& [name, value] = values->items[i];
        text.append(name).append(value == nullptr ? "?" : std::string{"="} + value + ";");
    }
    kelbus_values_free(values);
    return text + kWords.at(error);
}

std::string many(const BusSession& bus, const std::vector<const char*>& names, int limit = kLimit) {
    kelbus_values* values = nullptr;
    const kelbus_error error =
        kelbus_get_many(bus.get(), names.data(), names.size(), &values, limit);
    return taken(error, values);
}

const std::string kHead = "<?xml version=\"1.0\"?>\n";

std::string replyOf(const std::string& root, const std::string& parameters) {
    return kHead + "<" + root + ">" + parameters + "</" + root + ">\n";
}

std::string valueReply(const std::string& value) {
    return replyOf("GET_RESPONSE_ACTION", "<parameter name=\"n\">" + value + "</parameter>");
}

// A REP socket in the place of the GET endpoint.
class FakeService {
  public:
    FakeService() {
        std::filesystem::create_directories("/tmp/kelbus");
        const int none = 0;
        zmq_setsockopt(socket_.get(), ZMQ_LINGER, &none, sizeof none);
        EXPECT_EQ(zmq_bind(socket_.get(), "ipc:///tmp/kelbus/kelbus_getsock"), 0);
    }
    // Empty when none comes for that long.
    std::string take(int limit = kLimit) {
        std::string request(10'000, '\0');
        zmq_setsockopt(socket_.get(), ZMQ_RCVTIMEO, &limit, sizeof limit);
        const int size = zmq_recv(socket_.get(), request.data(), request.size(), 0);
        return request.substr(0, static_cast<std::size_t>(std::max(size, 0)));
    }
    void send(const std::string& bytes, int flags = 0) {
        zmq_send(socket_.get(), bytes.data(), bytes.size(), flags);
    }
    void answer(const std::string& bytes, int flags = 0) {
        take();
        send(bytes, flags);
    }

  private:
    using Handle = std::unique_ptr<void, int (*)(void*)>;
    Handle context_{zmq_ctx_new(), zmq_ctx_term};
    Handle socket_{zmq_socket(context_.get(), ZMQ_REP), zmq_close};
};

// What a GET comes to beside the service's doings.
std::string asked(const BusSession& bus, const std::function<void()>& service, int limit = kLimit,
                  const std::vector<const char*>& names = {"n"}) {
    std::thread other{service};
    std::string answer = many(bus, names, limit);
    other.join();
    return answer;
}

TEST(BrokenService, IsToldFromAGoodOne) {
    const std::string whole = valueReply("v");
    FakeService service;
    const BusSession bus = openBus();
    const auto told = [&](const std::string& reply) {
        return asked(bus, [&] { service.answer(reply); });
    };
    for (const std::string& reply :
         {std::string{}, std::string{"rubbish"}, whole.substr(0, whole.size() / 2),
          whole.substr(0, whole.size() - 2), whole + "<more/>", valueReply("&undeclared;"),
          valueReply(std::string(1, '\0')), kHead + "<GET_RESPONSE_ALL_ACTION/>\n",
          kHead + "<GET_RESPONSE_ACTION/>\n",
          replyOf("GET_RESPONSE_ACTION", "<parameter name=\"m\">v</parameter>"),
          replyOf("GET_RESPONSE_FAIL_ACTION", "<parameter name=\"n\">v</parameter>"),
          kHead + "<!DOCTYPE d [<!ENTITY e \"v\">]>" + valueReply("&e;").substr(kHead.size())}) {
        EXPECT_EQ(told(reply), "-broken") << reply;
    }
    const auto parts = [&] { service.answer(whole, ZMQ_SNDMORE), service.send(whole); };
    EXPECT_EQ(asked(bus, parts), "-broken");
    EXPECT_EQ(told(replyOf("GET_RESPONSE_FAIL_ACTION", "<parameter name=\"n\"/>")), "n?-unknown");
    EXPECT_EQ(told(whole), "n=v;");
    // XML in another form is as good.
    EXPECT_EQ(told("<?xml version='1.0' encoding='UTF-8'?><!-- c --><GET_RESPONSE_ACTION >\n "
                   "<p name='n'>a<![CDATA[<b>]]><i>c</i></p> </GET_RESPONSE_ACTION>"),
              "n=a<b>c;");
}

// An answer that comes after the limit must not be taken for that of the next request.
TEST(BrokenService, MayAnswerTooLate) {
    FakeService service;
    const BusSession bus = openBus();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(many(bus, {"n"}, 120), "-timeout");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds{120});
    const auto late = [&] { service.answer(valueReply("late")), service.answer(valueReply("v")); };
    EXPECT_EQ(asked(bus, late), "n=v;");
    EXPECT_EQ(many(bus, {"n"}, 0), "-timeout");
}

// One unknown name among 64 empty values, by a service that takes its time: the search halves, and
// the limit is that of the whole call.
TEST(BrokenService, IsAskedAgainForUnknownNamesWithinTheLimit) {
    std::array<std::string, 64> texts;
    std::vector<const char*> names;
    std::string answer;
    for (std::string& text : texts) {
        text = "n" + std::to_string(100 + names.size());
        names.push_back(text.c_str());
        answer += text + (text == "n142" ? "?" : "=;");
    }
    FakeService service;
    const BusSession bus = openBus();
    const auto serve = [&](int pause) {
        for (int i = 0; i < 13; ++i) { // the first, and two for each halving
            std::string reply = service.take(pause == 0 ? kLimit : 500);
            if (reply.empty()) {
                return; // given up
            }
            std::this_thread::sleep_for(std::chrono::milliseconds{pause});
            const bool unknown = reply.find("\"n142\"") != std::string::npos;
            for (std::size_t at = 0; (at = reply.find("GET_", at)) != std::string::npos; at += 5) {
                reply.replace(at, 4, unknown ? "GET_RESPONSE_FAIL_" : "GET_RESPONSE_");
            }
            service.send(reply);
        }
    };
    const auto at_once = [&] { serve(0); };
    const auto slowly = [&] { serve(20); }; // 260 ms at least
    EXPECT_EQ(asked(bus, at_once, kLimit, names), answer + "-unknown");
    EXPECT_EQ(asked(bus, slowly, 140, names), "-timeout");
}

TEST(BrokenService, MayEndBeforeItAnswers) {
    for (const int limit : {kLimit, -1}) {
        for (const bool back_at_once : {false, true}) { // the request is lost all the same
            std::optional<FakeService> service{std::in_place};
            const auto end = [&] {
                service->take();
                service.reset();
                if (back_at_once) {
                    service.emplace();
                }
            };
            EXPECT_EQ(asked(openBus(), end, limit), "-absent");
        }
    }
}

std::string textOf(const ReplyDocument& document) {
    std::string text = document.root;
    for (const auto& [name, value, before] : document.parameters) {
        text.append("|").append(document.text(name)).append("|").append(document.text(value));
        text.append("|").append(document.text(before));
    }
    return text;
}

// What the scanner accepts reads as the parser reads it: good documents with bytes changed, taken
// away and put in at random places.
TEST(ReplyReaders, Agree) {
    const std::string good[] = {
        kHead + "<SET_RESPONSE_ACTION/>\n",
        replyOf("GET_RESPONSE_FAIL_ACTION",
                "<parameter name=\"a\"></parameter><parameter name=\"b\"/>"),
        replyOf("EVENT_ACTION",
                "<parameter name=\"a&#10;&quot;&amp;b\" prev_value=\"&lt;&#xE9;\">1 &#13;\n\t"
                "&amp;&gt;&#x1F4F7;\"</parameter><parameter name=\"network.name\" "
                "prev_value=\"before it\">after it was</parameter>")};
    const std::string bytes = "<>&;\"'#x/ =\n\r\t]!?aAp0:\x01\x7F\xC3";
    std::mt19937 random{1}; // the same documents in each run
    const auto below = [&](std::size_t end) { return random() % end; };
    ReplyReader reader;
    int accepted = 0;
    for (unsigned i = 0; i < 60'000; ++i) {
        std::string document = good[i % 3];
        for (std::size_t changes = i < 3 ? 0 : 1 + below(3); changes > 0; --changes) {
            const std::string byte(below(3) == 0 ? 0 : 1, bytes[below(bytes.size())]);
            document.replace(below(document.size()), below(2), byte);
        }
        ReplyDocument scanned;
        ReplyDocument parsed;
        if (scanReply(document, scanned)) {
            ++accepted;
            ASSERT_TRUE(reader.parse(document, parsed)) << document;
            ASSERT_EQ(textOf(scanned), textOf(parsed)) << document;
        } else {
            ASSERT_GE(i, 3U) << document;
        }
    }
    EXPECT_GT(accepted, 3'000);
}

// Reads, sets and watches side by side. Whether all went well.
bool allWell() {
    const BusSession bus = openBus();
    kelbus_watch* watch = nullptr;
    bool well = kelbus_watch_open_with(&watch, nullptr, 0, KELBUS_WATCH_VALUES) == KELBUS_OK;
    for (int round = 0; round < 50; ++round) {
        kelbus_request* request = nullptr;
        kelbus_values* values = nullptr;
        kelbus_change change{};
        well = well && kelbus_start_list(bus.get(), "cam.b", &request) == KELBUS_OK &&
               kelbus_set(bus.get(), "cam.a", "x", KELBUS_SET, kLimit) == KELBUS_OK &&
               many(bus, {"cam.a"}) == "cam.a=x;" &&
               kelbus_watch_next(watch, &change, 0) != KELBUS_BROKEN_REPLY;
        const kelbus_error error = kelbus_request_finish(request, &values, kLimit);
        well = well && taken(error, values) == "cam.b=;";
    }
    kelbus_watch_close(watch);
    return well;
}

TEST(Client, ServesThreadsWithClientsOfTheirOwn) {
    resetDevice("<t><cam type='trunk'><a type='string'>1</a><b type='string'/></cam></t>");
    Daemon service;
    ASSERT_TRUE(service.awaitReady());
    std::atomic<int> well{0};
    std::vector<std::thread> threads(8);
    for (std::thread& thread : threads) {
        thread = std::thread{[&well] { well += allWell() ? 1 : 0; }};
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(well, 8);
}

} // namespace
} // namespace kelconf::test
