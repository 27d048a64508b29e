// web_bench bare: a server of the same library that answers every request with a fixed text, at
// port 8090, until its standard input ends. web_bench ROUNDS BASIC PID: measures kelconf-web at
// port 8080 (whose process is PID, and to which BASIC logs in) against it and against the bus, and
// prints a table. bench/web runs both.

#include "kelbus.h"
#include "median.h"
#include "turns.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::uint16_t kWebPort = 8080;
constexpr std::uint16_t kBarePort = 8090;
constexpr int kLimit = 10000; // ms
constexpr const char* kName = "net.bench";
constexpr int kSubscribers = 1000;
constexpr int kOfAnAddress = 200;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

// A connection that is kept.
class Http {
  public:
    Http(std::uint16_t port, std::uint32_t source) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        const int on = 1;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(source);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            fail("bind");
        }
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            fail("connect");
        }
    }
    Http(const Http&) = delete;
    Http& operator=(const Http&) = delete;
    Http(Http&&) = delete;
    Http& operator=(Http&&) = delete;
    ~Http() { close(fd_); }

    [[nodiscard]] int fd() const { return fd_; }
    void ask(const std::string& path, const std::string& basic) const {
        const std::string text = "GET " + path +
                                 " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Basic " + basic +
                                 "\r\n\r\n";
        if (write(fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            fail("write");
        }
    }
    // Reads until what came ends with `end`.
    void readUntil(std::string_view end) {
        text_.clear();
        while (!text_.ends_with(end)) {
            readMore();
        }
        if (!text_.starts_with("HTTP/1.1 200")) {
            fail(text_.c_str());
        }
    }
    // An answer with its length in the head.
    void readAnswer() {
        text_.clear();
        std::size_t whole = 0;
        while (whole == 0 || text_.size() < whole) {
            readMore();
            const std::size_t head = text_.find("\r\n\r\n");
            const std::size_t length = text_.find("Content-Length: ");
            if (head != std::string::npos && length != std::string::npos) {
                whole = head + 4 + std::strtoull(&text_[length + 16], nullptr, 10);
            }
        }
        if (!text_.starts_with("HTTP/1.1 200")) {
            fail(text_.c_str());
        }
    }
    void readMore() {
        const std::size_t had = text_.size();
        text_.resize(had + 65536);
        const ssize_t got = read(fd_, &text_[had], 65536);
        if (got <= 0) {
            fail("read");
        }
        text_.resize(had + static_cast<std::size_t>(got));
    }

  private:
    int fd_;
    std::string text_;
};

MHD_Result answerFixed(void* text, MHD_Connection* connection, const char* /*path*/,
                       const char* /*method*/, const char* /*version*/, const char* /*part*/,
                       std::size_t* /*size*/, void** seen) {
    if (*seen == nullptr) {
        *seen = connection; // answered at the second call, so that the connection is kept
        return MHD_YES;
    }
    const auto& fixed = *static_cast<const std::string*>(text);
    MHD_Response* response = MHD_create_response_from_buffer(
        fixed.size(), const_cast<char*>(fixed.data()), MHD_RESPMEM_PERSISTENT);
    const MHD_Result queued = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return queued;
}

int serveBare() {
    std::string text(260, 'x'); // as long as the answer that it is held against
    MHD_Daemon* daemon = MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD, kBarePort, nullptr,
                                          nullptr, answerFixed, &text, MHD_OPTION_END);
    if (daemon == nullptr) {
        fail("bare server");
    }
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    MHD_stop_daemon(daemon);
    return 0;
}

void appendText(std::string& json, const char* text) {
    json += '"';
    for (; *text != '\0'; ++text) {
        if (*text == '"' || *text == '\\') {
            json += '\\';
        }
        json += *text;
    }
    json += '"';
}

// The barest list: names and values.
void writeJson(kelbus* bus) {
    static std::string json;
    kelbus_values* values = nullptr;
    if (kelbus_get_all(bus, &values, kLimit) != KELBUS_OK) {
        fail(kelbus_message(bus));
    }
    json = "[";
    for (std::size_t i = 0; i < values->count; ++i) {
        json += "{\"name\":";
        appendText(json, values->items[i].name);
        json += ",\"value\":";
        appendText(json, values->items[i].value);
        json += "},";
    }
    kelbus_values_free(values);
}

void printRatio(const char* what, const bench::Rival& measured, const bench::Rival& against,
                const char* goal) {
    std::printf("| %s | %.1f | %.1f | %.2f | %s |\n", what, median(measured.times),
                median(against.times), bench::medianRatio(measured.times, against.times), goal);
}

// From a change at a client to its event on the bus, and at a browser: the time between the two.
void measureEvents(kelbus* bus, const std::string& basic, int rounds) {
    kelbus_watch* watch = nullptr;
    const char* prefix = kName;
    Http browser{kWebPort, INADDR_LOOPBACK};
    browser.ask(std::string{"/api/v1/events?prefix="} + kName, basic);
    browser.readUntil(":\n\n\r\n");
    if (kelbus_watch_open(&watch, &prefix, 1) != KELBUS_OK) {
        fail("watch");
    }
    std::vector<double> by_bus;
    std::vector<double> by_web;
    for (int i = 0; i < rounds; ++i) {
        const double begin = bench::now();
        kelbus_set(bus, kName, std::to_string(i).c_str(), KELBUS_SET_DIRECT, kLimit);
        pollfd waits[] = {{kelbus_watch_fd(watch), POLLIN, 0}, {browser.fd(), POLLIN, 0}};
        for (bool bus_seen = false, web_seen = false; !bus_seen || !web_seen;) {
            kelbus_change change{};
            if (!bus_seen && kelbus_watch_next(watch, &change, 0) == KELBUS_OK) {
                by_bus.push_back(1e3 * (bench::now() - begin));
                bus_seen = true;
            }
            if (!web_seen && poll(&waits[1], 1, 0) == 1) {
                browser.readMore();
                by_web.push_back(1e3 * (bench::now() - begin));
                web_seen = true;
            }
            if (!bus_seen || !web_seen) {
                poll(bus_seen ? &waits[1] : waits, bus_seen || web_seen ? 1 : 2, kLimit);
            }
        }
    }
    kelbus_watch_close(watch);
    std::printf("| a change at a client until its event: at a browser, at a watch of the bus (ms) "
                "| %.2f | %.2f | "
                "%+.2f ms | <= 5 ms more |\n",
                median(by_web), median(by_bus), median(by_web) - median(by_bus));
}

long residentKib(const std::string& pid) {
    std::ifstream status{"/proc/" + pid + "/status"};
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") {
            long kib = 0;
            status >> kib;
            return kib;
        }
    }
    return 0;
}

void measureMemory(const std::string& pid, const std::string& basic, long at_rest) {
    std::vector<std::unique_ptr<Http>> subscribers;
    for (int i = 0; i < kSubscribers; ++i) {
        const std::uint32_t source = INADDR_LOOPBACK + 1 + static_cast<unsigned>(i / kOfAnAddress);
        subscribers.push_back(std::make_unique<Http>(kWebPort, source));
        subscribers.back()->ask("/api/v1/events", basic);
        subscribers.back()->readUntil(":\n\n\r\n");
    }
    std::printf("\nResident memory: %ld KiB at rest, %ld KiB with %d subscribers.\n", at_rest,
                residentKib(pid), kSubscribers);
}

int measure(int rounds, const std::string& basic, const std::string& pid) {
    kelbus* bus = nullptr;
    if (kelbus_open(&bus) != KELBUS_OK) {
        fail("bus");
    }
    Http web{kWebPort, INADDR_LOOPBACK};
    Http bare{kBarePort, INADDR_LOOPBACK};
    const long at_rest = residentKib(pid);
    const std::string one = std::string{"/api/v1/parameters/"} + kName;
    std::vector<bench::Rival> gets{{nullptr, [&] { web.ask(one, basic), web.readAnswer(); }},
                                   {nullptr, [&] { bare.ask(one, basic), bare.readAnswer(); }}};
    bench::playTurns(gets, rounds, 500);
    std::vector<bench::Rival> lists{
        {nullptr, [&] { web.ask("/api/v1/parameters", basic), web.readAnswer(); }},
        {nullptr, [&] { writeJson(bus); }}};
    bench::playTurns(lists, rounds, 10);
    std::puts("| what | us | yardstick, us | ratio | goal |\n|---|---:|---:|---:|---|");
    printRatio("GET of one value, over a bare server's fixed text", gets[0], gets[1], "<= 1.5");
    printRatio("all parameters as JSON, over GET_ALL and names and values as JSON", lists[0],
               lists[1], "<= 1.3");
    measureEvents(bus, basic, rounds * 10);
    kelbus_close(bus);
    measureMemory(pid, basic, at_rest);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "bare") == 0) {
        return serveBare();
    }
    return argc == 4
               ? measure(static_cast<int>(std::strtol(argv[1], nullptr, 10)), argv[2], argv[3])
               : 2;
}
