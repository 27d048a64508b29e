// A client of the bus for tests: requests with a deadline, and events.
#pragma once

#include "bus/endpoints.h"
#include "bus/zmq_handle.h"

#include <stdexcept>
#include <string>

namespace kelconf::test {

inline constexpr int kPatienceMs = 20000;

inline std::string receiveText(void* socket) {
    Message message;
    if (message.receive(socket, 0) < 0) {
        return "(no reply: " + std::string(zmq_strerror(zmq_errno())) + ")";
    }
    return {message.data(), message.size()};
}

// One context of its own, as another process would have.
class Client {
  public:
    Client() : context_(zmq_ctx_new()) {}
    ~Client() { zmq_ctx_destroy(context_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    Client(Client&&) = delete;
    Client& operator=(Client&&) = delete;

    Socket connect(int type, const char* address) const {
        Socket socket{zmq_socket(context_, type)};
        setSocketOption(socket.get(), ZMQ_LINGER, 0);
        setSocketOption(socket.get(), ZMQ_RCVTIMEO, kPatienceMs);
        if (type == ZMQ_SUB) {
            zmq_setsockopt(socket.get(), ZMQ_SUBSCRIBE, "", 0);
        }
        if (zmq_connect(socket.get(), address) != 0) {
            throw std::runtime_error(std::string("cannot connect to ") + address);
        }
        return socket;
    }

    std::string ask(const char* address, const std::string& request) const {
        const Socket socket = connect(ZMQ_REQ, address);
        zmq_send(socket.get(), request.data(), request.size(), 0);
        return receiveText(socket.get());
    }

  private:
    void* context_;
};

// The part of a document after its declaration, without the line feed.
inline std::string body(const std::string& document) {
    const std::string head = "<?xml version=\"1.0\"?>\n";
    const bool whole = document.starts_with(head) && document.ends_with("\n");
    return whole ? document.substr(head.size(), document.size() - head.size() - 1)
                 : "(not a document) " + document;
}

inline std::string setRequest(const std::string& kind, const std::string& name,
                              const std::string& value) {
    return "<" + kind + "><parameter name=\"" + name + "\">" + value + "</parameter></" + kind +
           ">";
}

inline std::string getRequest(const std::string& name) {
    return "<GET_ACTION><parameter name=\"" + name + "\"/></GET_ACTION>";
}

} // namespace kelconf::test
