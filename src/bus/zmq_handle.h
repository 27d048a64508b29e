// Owners for ZeroMQ's handles, and the calls that every endpoint makes.
#pragma once

#include "text/text.h"

#include <zmq.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace kelconf {

struct CloseSocket {
    void operator()(void* socket) const noexcept { zmq_close(socket); }
};
// May be empty: a call on an empty socket fails and is not dangerous.
using Socket = std::unique_ptr<void, CloseSocket>;

// A received message; closed at the end of the block.
class Message {
  public:
    Message() noexcept { zmq_msg_init(&message_); }
    ~Message() { zmq_msg_close(&message_); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    Message(Message&&) = delete;
    Message& operator=(Message&&) = delete;

    // Length in bytes, or -1 with zmq_errno set. What was held before is released.
    int receive(void* socket, int flags) noexcept { return zmq_msg_recv(&message_, socket, flags); }
    // The number of bytes; the message is empty then. Or -1 with zmq_errno set, and it is kept.
    int send(void* socket, int flags) noexcept { return zmq_msg_send(&message_, socket, flags); }
    [[nodiscard]] bool more() noexcept { return zmq_msg_more(&message_) != 0; }
    [[nodiscard]] const char* data() noexcept {
        return static_cast<const char*>(zmq_msg_data(&message_));
    }
    [[nodiscard]] std::size_t size() noexcept { return zmq_msg_size(&message_); }

  private:
    zmq_msg_t message_{};
};

// Sends a document as one message, without copying it: ZeroMQ releases it when it is out (or
// here, when the send fails). The number of bytes, or -1.
int sendDocument(void* socket, OwnedText document, std::int32_t length, int flags);

inline void setSocketOption(void* socket, int option, int value) {
    zmq_setsockopt(socket, option, &value, sizeof value);
}

// Binds the socket and opens its file to the bus's group (files/bus_group.h). 0, or -1.
int bindEndpoint(void* socket, const char* address);

} // namespace kelconf
