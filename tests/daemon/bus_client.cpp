#include "daemon/bus_client.h"

#include "bus/endpoints.h"

#include <zmq.h>

#include <array>
#include <stdexcept>

namespace kelconf::test {

namespace {

constexpr std::chrono::milliseconds kDeadline{60'000};
constexpr const char* kDeclaration = "<?xml version=\"1.0\"?>\n";

void setOption(void* socket, int option, int value) {
    zmq_setsockopt(socket, option, &value, sizeof value);
}

std::optional<std::string> receiveFrom(void* socket, std::chrono::milliseconds time) {
    setOption(socket, ZMQ_RCVTIMEO, static_cast<int>(time.count()));
    zmq_msg_t message;
    zmq_msg_init(&message);
    std::optional<std::string> text;
    if (zmq_msg_recv(&message, socket, 0) >= 0) {
        text.emplace(static_cast<const char*>(zmq_msg_data(&message)), zmq_msg_size(&message));
    }
    zmq_msg_close(&message);
    return text;
}

} // namespace

std::string getRequest(const std::vector<std::string>& names) {
    std::string text{kDeclaration};
    text.append("<GET_ACTION>");
    for (const std::string& name : names) {
        text.append("<parameter name=\"").append(name).append("\"/>");
    }
    return text.append("</GET_ACTION>\n");
}

std::string setRequest(const std::string& root, const std::vector<Parameter>& parameters) {
    std::string text{kDeclaration};
    text.append("<").append(root).append(">");
    for (const auto& [name, value] : parameters) {
        text.append("<parameter name=\"").append(name).append("\">");
        text.append(value).append("</parameter>");
    }
    return text.append("</").append(root).append(">\n");
}

Requester::Requester(const char* address)
    : context_(zmq_ctx_new()), socket_(zmq_socket(context_, ZMQ_REQ)) {
    setOption(socket_, ZMQ_LINGER, 0);
    setOption(socket_, ZMQ_SNDTIMEO, static_cast<int>(kDeadline.count()));
    if (zmq_connect(socket_, address) != 0) {
        throw std::runtime_error("cannot connect");
    }
}

Requester::~Requester() {
    zmq_close(socket_);
    zmq_ctx_term(context_);
}

void Requester::send(const std::string& request) {
    if (zmq_send(socket_, request.data(), request.size(), 0) < 0) {
        throw std::runtime_error("cannot send a request");
    }
}

std::optional<std::string> Requester::receive(std::chrono::milliseconds time) {
    return receiveFrom(socket_, time);
}

std::string Requester::ask(const std::string& request) {
    send(request);
    if (auto reply = receive(kDeadline)) {
        return *reply;
    }
    throw std::runtime_error("no reply to " + request.substr(0, 200));
}

Subscriber::Subscriber() : context_(zmq_ctx_new()), socket_(zmq_socket(context_, ZMQ_SUB)) {
    setOption(socket_, ZMQ_LINGER, 0);
    zmq_setsockopt(socket_, ZMQ_SUBSCRIBE, "", 0);
    if (zmq_connect(socket_, endpoints::kEvent) != 0) {
        throw std::runtime_error("cannot subscribe");
    }
}

Subscriber::~Subscriber() {
    zmq_close(socket_);
    zmq_ctx_term(context_);
}

std::optional<std::string> Subscriber::next(std::chrono::milliseconds time) {
    return receiveFrom(socket_, time);
}

std::string valueOf(const std::string& name) {
    Requester get{endpoints::kGet};
    const std::string reply = get.ask(getRequest({name}));
    const std::string opening = "<GET_RESPONSE_ACTION><parameter name=\"" + name + "\">";
    const std::size_t begin = reply.find(opening);
    const std::size_t end = reply.find("</parameter>");
    if (begin == std::string::npos || end == std::string::npos) {
        return "?";
    }
    return reply.substr(begin + opening.size(), end - begin - opening.size());
}

bool set(const std::string& root, const std::vector<Parameter>& parameters) {
    Requester requester{endpoints::kSet};
    return requester.ask(setRequest(root, parameters)) ==
           "<?xml version=\"1.0\"?>\n<SET_RESPONSE_ACTION/>\n";
}

} // namespace kelconf::test
