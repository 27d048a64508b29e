// The calls of kelbus.h that wait for their answers.
#include "client/client.h"

#include "client/call.h"
#include "client/names.h"
#include "client/values.h"
#include "text/text.h"

#include <memory>

namespace kelconf {

namespace {

// A call that gives values. `begin` sends its first request.
template <typename Begin>
kelbus_error readValues(kelbus* client, kelbus_values** values, int timeout_ms, Begin begin) {
    if (values == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    *values = nullptr;
    return guarded(client, [&](kelbus& open) {
        const Deadline deadline{timeout_ms};
        Call call{open};
        kelbus_error error = begin(open, call);
        if (error == KELBUS_OK) {
            error = call.finish(deadline);
        }
        if (error == KELBUS_OK || error == KELBUS_UNKNOWN_NAME) {
            *values = call.takeValues().release();
        }
        return error;
    });
}

} // namespace

} // namespace kelconf

using namespace kelconf; // NOLINT(google-build-using-namespace): the calls below are its border

const char* kelbus_strerror(kelbus_error error) {
    switch (error) {
    case KELBUS_OK:
        return "done";
    case KELBUS_NO_SERVICE:
        return "the configuration service does not run";
    case KELBUS_TIMEOUT:
        return "the configuration service did not answer in time";
    case KELBUS_UNKNOWN_NAME:
        return "unknown parameter name";
    case KELBUS_REFUSED:
        return "the configuration service refused the request";
    case KELBUS_BROKEN_REPLY:
        return "the answer of the configuration service cannot be understood";
    case KELBUS_BAD_ARGUMENT:
        return "bad argument";
    case KELBUS_NO_MEMORY:
        return "out of memory or descriptors";
    case KELBUS_NO_CATALOG:
        return "the factory defaults cannot be read";
    case KELBUS_NOT_IN_VIEW:
        return "the value is not in the view";
    case KELBUS_TOO_SMALL:
        return "the buffer is too small";
    }
    return "unknown error";
}

const char* kelbus_version(void) {
    return KELBUS_VERSION;
}

kelbus_error kelbus_open(kelbus** client) {
    if (client == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    *client = nullptr;
    try {
        auto opened = std::make_unique<kelbus>();
        if (opened->context.get() != nullptr) {
            *client = opened.release();
        }
    } catch (const std::exception&) {
        // reported below
    }
    return *client != nullptr ? KELBUS_OK : KELBUS_NO_MEMORY;
}

void kelbus_close(kelbus* client) {
    delete client;
}

const char* kelbus_message(const kelbus* client) {
    return client == nullptr ? kelbus_strerror(KELBUS_BAD_ARGUMENT) : client->message.c_str();
}

kelbus_error kelbus_get(kelbus* client, const char* name, char** value, int timeout_ms) {
    if (value == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    *value = nullptr;
    return guarded(client, [&](kelbus& open) {
        const Deadline deadline{timeout_ms};
        const kelbus_parameter asked{name, nullptr};
        Call call{open};
        kelbus_error error = call.get({&asked, 1});
        if (error == KELBUS_OK) {
            error = call.finish(deadline);
        }
        if (error != KELBUS_OK) {
            return error;
        }
        *value = newText(call.takeValues()->parameters.front().value);
        return *value != nullptr ? KELBUS_OK : KELBUS_NO_MEMORY;
    });
}

kelbus_error kelbus_get_many(kelbus* client, const char* const* names, size_t count,
                             kelbus_values** values, int timeout_ms) {
    std::vector<kelbus_parameter> parameters;
    return readValues(client, values, timeout_ms, [&](kelbus& open, Call& call) {
        return readNames(names, count, parameters) ? call.get(parameters)
                                                   : badArgument(open, "the names are null");
    });
}

kelbus_error kelbus_get_all(kelbus* client, kelbus_values** values, int timeout_ms) {
    return kelbus_list(client, "", values, timeout_ms);
}

kelbus_error kelbus_list(kelbus* client, const char* prefix, kelbus_values** values,
                         int timeout_ms) {
    return readValues(client, values, timeout_ms, [&](kelbus& open, Call& call) {
        return prefix != nullptr ? call.list(prefix) : badArgument(open, "the prefix is null");
    });
}

kelbus_error kelbus_get_group(kelbus* client, const char* const* groups, size_t count,
                              kelbus_values** values, int timeout_ms) {
    std::vector<kelbus_parameter> parameters;
    return readValues(client, values, timeout_ms, [&](kelbus& open, Call& call) {
        return readNames(groups, count, parameters) ? call.group(parameters)
                                                    : badArgument(open, "the names are null");
    });
}

kelbus_error kelbus_set(kelbus* client, const char* name, const char* value, kelbus_kind kind,
                        int timeout_ms) {
    const kelbus_parameter parameter{name, value};
    return kelbus_set_many(client, &parameter, 1, kind, timeout_ms);
}

kelbus_error kelbus_set_many(kelbus* client, const kelbus_parameter* parameters, size_t count,
                             kelbus_kind kind, int timeout_ms) {
    return guarded(client, [&](kelbus& open) {
        if (parameters == nullptr && count > 0) {
            return badArgument(open, "the parameters are null");
        }
        const Deadline deadline{timeout_ms};
        Call call{open};
        const kelbus_error error = call.set({parameters, count}, kind);
        return error == KELBUS_OK ? call.finish(deadline) : error;
    });
}
