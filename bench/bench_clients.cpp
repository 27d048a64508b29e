#include "bench_clients.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace bench {

namespace {

constexpr int kDeadline = 60'000; // ms
constexpr const char* kEventAddress = "ipc:///tmp/kelbus/kelbus_eventsock";
constexpr std::string_view kDeclaration = "<?xml version=\"1.0\"?>\n";

void setOption(void* socket, int option, int value) {
    zmq_setsockopt(socket, option, &value, sizeof value);
}

void* connected(void* socket, const char* address) {
    setOption(socket, ZMQ_LINGER, 0);
    setOption(socket, ZMQ_RCVTIMEO, kDeadline);
    if (zmq_connect(socket, address) != 0) {
        giveUp(std::string{"cannot connect to "} + address);
    }
    return socket;
}

std::string receive(void* socket) {
    zmq_msg_t message;
    zmq_msg_init(&message);
    if (zmq_msg_recv(&message, socket, 0) < 0) {
        giveUp("nothing came");
    }
    std::string text{static_cast<const char*>(zmq_msg_data(&message)), zmq_msg_size(&message)};
    zmq_msg_close(&message);
    return text;
}

} // namespace

void giveUp(const std::string& what) {
    std::fprintf(stderr, "service_bench: %s\n", what.c_str());
    std::exit(1);
}

std::string getRequest(const std::vector<std::string>& names) {
    std::string text{kDeclaration};
    text += "<GET_ACTION>";
    for (const std::string& name : names) {
        text += "<parameter name=\"" + name + "\"/>";
    }
    return text += "</GET_ACTION>\n";
}

std::string setRequest(std::string_view root, const std::vector<std::string>& names,
                       std::string_view value) {
    std::string text{kDeclaration};
    text.append("<").append(root).append(">");
    for (const std::string& name : names) {
        text.append("<parameter name=\"").append(name).append("\">");
        text.append(value).append("</parameter>");
    }
    return text.append("</").append(root).append(">\n");
}

BusClient::BusClient(const char* address)
    : context_(zmq_ctx_new()), socket_(connected(zmq_socket(context_, ZMQ_REQ), address)) {}

BusClient::~BusClient() {
    zmq_close(socket_);
    zmq_ctx_term(context_);
}

std::size_t BusClient::ask(std::string_view request) {
    zmq_msg_t reply;
    zmq_msg_init(&reply);
    if (zmq_send(socket_, request.data(), request.size(), 0) < 0 ||
        zmq_msg_recv(&reply, socket_, 0) < 0) {
        giveUp("no reply to " + std::string{request.substr(0, 100)});
    }
    const std::size_t size = zmq_msg_size(&reply);
    zmq_msg_close(&reply);
    return size;
}

std::string BusClient::replyTo(std::string_view request) {
    zmq_send(socket_, request.data(), request.size(), 0);
    return receive(socket_);
}

EventClient::EventClient()
    : context_(zmq_ctx_new()), socket_(connected(zmq_socket(context_, ZMQ_SUB), kEventAddress)) {
    zmq_setsockopt(socket_, ZMQ_SUBSCRIBE, "", 0);
}

EventClient::~EventClient() {
    zmq_close(socket_);
    zmq_ctx_term(context_);
}

std::string EventClient::next() {
    return receive(socket_);
}

RedisClient::RedisClient(const char* path)
    : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), buffer_(64UL * 1024) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    for (int tries = 0;
         connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0;
         ++tries) {
        if (tries == 1000) {
            giveUp("redis-server does not listen");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds{10});
    }
}

RedisClient::~RedisClient() {
    close(socket_);
}

void RedisClient::fill() {
    if (begin_ == end_) {
        begin_ = end_ = 0;
    } else if (end_ == buffer_.size()) {
        std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_), buffer_.end(),
                  buffer_.begin());
        end_ -= begin_;
        begin_ = 0;
    }
    const ssize_t got = read(socket_, buffer_.data() + end_, buffer_.size() - end_);
    if (got <= 0) {
        giveUp("redis-server has gone");
    }
    end_ += static_cast<std::size_t>(got);
}

// Without its "\r\n". Valid until the next reading.
std::string_view RedisClient::line() {
    for (;;) {
        const std::string_view held{buffer_.data() + begin_, end_ - begin_};
        const std::size_t size = held.find("\r\n");
        if (size != std::string_view::npos) {
            begin_ += size + 2;
            return held.substr(0, size);
        }
        fill();
    }
}

void RedisClient::skip(std::size_t bytes) {
    while (end_ - begin_ < bytes) {
        bytes -= end_ - begin_;
        begin_ = end_;
        fill();
    }
    begin_ += bytes;
}

void RedisClient::readReply() {
    const std::string head{line()};
    const long number = std::strtol(head.c_str() + 1, nullptr, 10);
    if (head[0] == '$' && number >= 0) {
        skip(static_cast<std::size_t>(number) + 2);
    } else if (head[0] == '*') {
        for (long i = 0; i < number; ++i) {
            readReply();
        }
    } else if (head[0] == '-' || head[0] == '$') {
        giveUp("redis-server answers " + head);
    }
}

void RedisClient::ask(std::string_view command) {
    if (write(socket_, command.data(), command.size()) != static_cast<ssize_t>(command.size())) {
        giveUp("cannot write to redis-server");
    }
    readReply();
}

std::string RedisClient::commandOf(const std::vector<std::string>& words) {
    std::string text{"*"};
    text.append(std::to_string(words.size())).append("\r\n");
    for (const std::string& word : words) {
        text.append("$").append(std::to_string(word.size())).append("\r\n");
        text.append(word).append("\r\n");
    }
    return text;
}

} // namespace bench
