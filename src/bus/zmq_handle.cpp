#include "bus/zmq_handle.h"

#include "files/bus_group.h"

#include <string_view>

namespace kelconf {

namespace {

constexpr std::string_view kIpc = "ipc://";

void releaseDocument(void* data, void* /*hint*/) {
    freeText(static_cast<char*>(data));
}

} // namespace

int sendDocument(void* socket, OwnedText document, std::int32_t length, int flags) {
    zmq_msg_t message;
    char* bytes = document.get();
    if (zmq_msg_init_data(&message, bytes, static_cast<std::size_t>(length), releaseDocument,
                          nullptr) != 0) {
        return -1;
    }
    static_cast<void>(document.release());
    const int sent = zmq_msg_send(&message, socket, flags);
    if (sent < 0) {
        zmq_msg_close(&message);
    }
    return sent;
}

int bindEndpoint(void* socket, const char* address) {
    const int bound = zmq_bind(socket, address);
    if (bound == 0 && std::string_view{address}.starts_with(kIpc)) {
        shareWithBusGroup(address + kIpc.size());
    }
    return bound;
}

} // namespace kelconf
