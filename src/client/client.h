// A client of kelbus.h, as its calls see it.
#pragma once

#include "client/client_context.h"
#include "client/connection.h"
#include "client/reply_document.h"
#include "kelbus.h"

#include <exception>
#include <string>

struct kelbus {
    kelconf::ContextUse context;
    // At rest: a call takes the one that it needs and gives it back with the reply.
    kelconf::Connection get;
    kelconf::Connection set;
    kelconf::Connection get_all;
    kelconf::Connection get_group;
    kelconf::ReplyReader reader;
    std::string message; // the last failure
};

namespace kelconf {

// Notes why a call fails, and gives its error.
inline kelbus_error badArgument(kelbus& client, const char* why) {
    client.message = why;
    return KELBUS_BAD_ARGUMENT;
}

// Runs the body of a public call. Exceptions end here.
template <typename Body>
kelbus_error guarded(kelbus* client, Body body) {
    if (client == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    client->message.clear();
    try {
        return body(*client);
    } catch (const std::exception&) {
        return KELBUS_NO_MEMORY;
    }
}

} // namespace kelconf
