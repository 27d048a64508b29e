#include "bus/bus_context.h"

#include <libxml/parser.h>
#include <zmq.h>

#include <cerrno>

namespace kelconf {

void* context = nullptr;

bool initBusContext() {
    xmlInitParser();
    context = zmq_ctx_new();
    return context != nullptr;
}

void shutdownBusContext() {
    zmq_ctx_shutdown(context);
}

void closeBusContext() {
    while (zmq_ctx_term(context) != 0 && zmq_errno() == EINTR) {
    }
    context = nullptr;
}

} // namespace kelconf
