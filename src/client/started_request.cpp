// The requests of kelbus.h that are begun and finished apart.
#include "client/call.h"
#include "client/names.h"

#include <deque>
#include <memory>
#include <string>

// The texts of the caller are his again when the request has begun.
struct kelbus_request {
    explicit kelbus_request(kelbus& client_) : client(client_), call(client_) {}

    kelbus& client;
    std::deque<std::string> texts;
    std::vector<kelbus_parameter> parameters; // point into the texts
    bool sets = false;
    kelconf::Call call;
};

namespace kelconf {

namespace {

const char* keep(kelbus_request& request, const char* text) {
    return text == nullptr ? nullptr : request.texts.emplace_back(text).c_str();
}

void keepAll(kelbus_request& request, Parameters parameters) {
    request.parameters.reserve(parameters.size());
    for (const auto& [name, value] : parameters) {
        request.parameters.push_back({keep(request, name), keep(request, value)});
    }
}

template <typename Begin>
kelbus_error start(kelbus* client, kelbus_request** request, Begin begin) {
    if (request == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    *request = nullptr;
    return guarded(client, [&](kelbus& open) {
        auto started = std::make_unique<kelbus_request>(open);
        const kelbus_error error = begin(*started);
        if (error == KELBUS_OK) {
            *request = started.release();
        }
        return error;
    });
}

kelbus_error startWith(kelbus* client, kelbus_request** request, const char* const* names,
                       std::size_t count, kelbus_error (Call::*ask)(Parameters)) {
    return start(client, request, [&](kelbus_request& started) {
        std::vector<kelbus_parameter> parameters;
        if (!readNames(names, count, parameters)) {
            return badArgument(started.client, "the names are null");
        }
        keepAll(started, parameters);
        return (started.call.*ask)(started.parameters);
    });
}

} // namespace

} // namespace kelconf

using namespace kelconf; // NOLINT(google-build-using-namespace): the calls below are its border

kelbus_error kelbus_start_get(kelbus* client, const char* const* names, size_t count,
                              kelbus_request** request) {
    return startWith(client, request, names, count, &Call::get);
}

kelbus_error kelbus_start_group(kelbus* client, const char* const* groups, size_t count,
                                kelbus_request** request) {
    return startWith(client, request, groups, count, &Call::group);
}

kelbus_error kelbus_start_list(kelbus* client, const char* prefix, kelbus_request** request) {
    return start(client, request, [&](kelbus_request& started) {
        return prefix != nullptr ? started.call.list(prefix)
                                 : badArgument(started.client, "the prefix is null");
    });
}

kelbus_error kelbus_start_set(kelbus* client, const kelbus_parameter* parameters, size_t count,
                              kelbus_kind kind, kelbus_request** request) {
    return start(client, request, [&](kelbus_request& started) {
        if (parameters == nullptr && count > 0) {
            return badArgument(started.client, "the parameters are null");
        }
        started.sets = true;
        keepAll(started, {parameters, count});
        return started.call.set(started.parameters, kind);
    });
}

int kelbus_request_fd(kelbus_request* request) {
    return request == nullptr ? -1 : request->call.descriptor();
}

kelbus_error kelbus_request_finish(kelbus_request* request, kelbus_values** values,
                                   int timeout_ms) {
    if (values != nullptr) {
        *values = nullptr;
    }
    if (request == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    const kelbus_error error = guarded(&request->client, [&](kelbus& /*open*/) {
        return request->call.finish(Deadline{timeout_ms});
    });
    if (error == KELBUS_TIMEOUT) {
        return error;
    }
    const std::unique_ptr<kelbus_request> ended{request};
    if (values != nullptr && !ended->sets) {
        *values = ended->call.takeValues().release();
    }
    return error;
}

void kelbus_request_cancel(kelbus_request* request) {
    delete request;
}
