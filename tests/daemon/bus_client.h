// Clients of the configuration bus, on ZeroMQ's C API. Documents are written out by hand: the
// tests must not believe the builders that they test.
#pragma once

#include "bus/endpoints.h"
#include "bus/zmq_handle.h"

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelconf::test {

using Parameter = std::pair<std::string, std::string>;
using Parts = std::vector<std::string>;

inline constexpr std::chrono::milliseconds kPatience{60'000}; // a hang, not a measure

struct EndContext {
    void operator()(void* context) const noexcept { zmq_ctx_term(context); }
};

// One socket in a context of its own, as another process has. A SUB socket takes everything.
class Peer {
  public:
    Peer(int type, const char* address)
        : context_(zmq_ctx_new()), socket_(zmq_socket(context_.get(), type)) {
        setSocketOption(socket_.get(), ZMQ_LINGER, 0);
        setSocketOption(socket_.get(), ZMQ_SNDTIMEO, static_cast<int>(kPatience.count()));
        if (type == ZMQ_SUB) {
            zmq_setsockopt(socket_.get(), ZMQ_SUBSCRIBE, "", 0);
        }
        if (zmq_connect(socket_.get(), address) != 0) {
            throw std::runtime_error("cannot connect");
        }
    }
    void send(const Parts& parts) const {
        for (const std::string& part : parts) {
            const int flags = &part == &parts.back() ? 0 : ZMQ_SNDMORE;
            if (zmq_send(socket_.get(), part.data(), part.size(), flags) < 0) {
                throw std::runtime_error("cannot send");
            }
        }
    }
    // The next message; without parts when there is none in that time.
    [[nodiscard]] Parts receive(std::chrono::milliseconds time = kPatience) const {
        setSocketOption(socket_.get(), ZMQ_RCVTIMEO, static_cast<int>(time.count()));
        Parts parts;
        Message part;
        while ((parts.empty() || part.more()) && part.receive(socket_.get(), 0) >= 0) {
            parts.emplace_back(part.data(), part.size());
        }
        return parts;
    }

  private:
    std::unique_ptr<void, EndContext> context_;
    Socket socket_;
};

// A document without its declaration and last line feed; "(none)", or the text with "(bad)" in
// front, for what is no document in one part.
inline std::string bodyOf(const Parts& message) {
    constexpr std::string_view kHead = "<?xml version=\"1.0\"?>\n";
    if (message.empty()) {
        return "(none)";
    }
    const std::string& text = message[0];
    const bool whole = message.size() == 1 && text.starts_with(kHead) && text.ends_with('\n');
    return whole ? text.substr(kHead.size(), text.size() - kHead.size() - 1) : "(bad)" + text;
}

// The body of the reply to one request of a new client.
inline std::string ask(const char* address, const std::string& request) {
    const Peer peer{ZMQ_REQ, address};
    peer.send({request});
    return bodyOf(peer.receive());
}

// Texts are taken as XML. `root`: SET_ACTION, SET_ACTION_DIRECT or SET_ACTION_NO_DB.
inline std::string setRequest(const std::string& root, const std::vector<Parameter>& parameters) {
    std::string text{"<" + root + ">"};
    for (const auto& [name, value] : parameters) {
        text.append("<parameter name=\"").append(name).append("\">");
        text.append(value).append("</parameter>");
    }
    return text.append("</").append(root).append(">");
}

inline constexpr const char* kSetDone = "<SET_RESPONSE_ACTION/>";
inline constexpr const char* kSetFailed = "<SET_RESPONSE_FAIL_ACTION/>";

// True when the service answered that all names are known.
inline bool set(const std::string& root, const std::vector<Parameter>& parameters) {
    return ask(endpoints::kSet, setRequest(root, parameters)) == kSetDone;
}

// The live value of one name, as XML text; "?" where the service does not know it.
inline std::string valueOf(const std::string& name) {
    const std::string reply =
        ask(endpoints::kGet, "<GET_ACTION><parameter name=\"" + name + "\"/></GET_ACTION>");
    const std::string opening = "<GET_RESPONSE_ACTION><parameter name=\"" + name + "\">";
    const std::size_t end = reply.find("</parameter>");
    return reply.starts_with(opening) ? reply.substr(opening.size(), end - opening.size()) : "?";
}

} // namespace kelconf::test
