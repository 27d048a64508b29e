#include "daemon/bus_client.h"

#include <stdexcept>
#include <string_view>

namespace kelconf::test {

namespace {

void setOption(void* socket, int option, int value) {
    zmq_setsockopt(socket, option, &value, sizeof value);
}

} // namespace

Peer::Peer(int type, const char* address)
    : context_(zmq_ctx_new()), socket_(zmq_socket(context_, type)) {
    setOption(socket_, ZMQ_LINGER, 0);
    setOption(socket_, ZMQ_SNDTIMEO, static_cast<int>(kPatience.count()));
    if (type == ZMQ_SUB) {
        zmq_setsockopt(socket_, ZMQ_SUBSCRIBE, "", 0);
    }
    if (zmq_connect(socket_, address) != 0) {
        throw std::runtime_error("cannot connect");
    }
}

Peer::~Peer() {
    zmq_close(socket_);
    zmq_ctx_term(context_);
}

void Peer::send(const Parts& parts) const {
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const int flags = i + 1 < parts.size() ? ZMQ_SNDMORE : 0;
        if (zmq_send(socket_, parts[i].data(), parts[i].size(), flags) < 0) {
            throw std::runtime_error("cannot send");
        }
    }
}

Parts Peer::receive(std::chrono::milliseconds time) const {
    setOption(socket_, ZMQ_RCVTIMEO, static_cast<int>(time.count()));
    Parts parts;
    int more = 1;
    while (more != 0) {
        zmq_msg_t part;
        zmq_msg_init(&part);
        more = 0;
        if (zmq_msg_recv(&part, socket_, 0) >= 0) {
            parts.emplace_back(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part));
            more = zmq_msg_more(&part);
        }
        zmq_msg_close(&part);
    }
    return parts;
}

std::string bodyOf(const Parts& message) {
    constexpr std::string_view kHead = "<?xml version=\"1.0\"?>\n";
    if (message.empty()) {
        return "(none)";
    }
    const std::string& text = message[0];
    if (message.size() > 1 || !text.starts_with(kHead) || !text.ends_with('\n')) {
        return "(bad)" + text;
    }
    return text.substr(kHead.size(), text.size() - kHead.size() - 1);
}

std::string ask(const char* address, const std::string& request) {
    const Peer peer{ZMQ_REQ, address};
    peer.send({request});
    return bodyOf(peer.receive());
}

std::string getRequest(const std::vector<std::string>& names) {
    std::string text{"<GET_ACTION>"};
    for (const std::string& name : names) {
        text.append("<parameter name=\"").append(name).append("\"/>");
    }
    return text.append("</GET_ACTION>");
}

std::string setRequest(const std::string& root, const std::vector<Parameter>& parameters) {
    std::string text{"<" + root + ">"};
    for (const auto& [name, value] : parameters) {
        text.append("<parameter name=\"").append(name).append("\">");
        text.append(value).append("</parameter>");
    }
    return text.append("</").append(root).append(">");
}

std::string valueOf(const std::string& name) {
    const std::string reply = ask(endpoints::kGet, getRequest({name}));
    const std::string opening = "<GET_RESPONSE_ACTION><parameter name=\"" + name + "\">";
    const std::size_t end = reply.find("</parameter>");
    return reply.starts_with(opening) ? reply.substr(opening.size(), end - opening.size()) : "?";
}

bool set(const std::string& root, const std::vector<Parameter>& parameters) {
    return ask(endpoints::kSet, setRequest(root, parameters)) == kSetDone;
}

} // namespace kelconf::test
