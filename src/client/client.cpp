// The client of kelbus.h.
#include "bus/endpoints.h"
#include "bus/xml_quiet.h"
#include "client/client_context.h"
#include "client/connection.h"
#include "client/reply_document.h"
#include "client/request_document.h"
#include "client/values.h"
#include "kelbus.h"
#include "text/text.h"

#include <array>
#include <climits>
#include <new>
#include <vector>

using kelconf::Deadline;
using kelconf::ReplyDocument;
using kelconf::ValueList;

struct kelbus {
    kelconf::ContextUse context;
    kelconf::Connection get;
    kelconf::Connection set;
    kelconf::Connection get_all;
    kelconf::Connection get_group;
    kelconf::ReplyReader reader;
    std::string message;
};

namespace kelconf {

namespace {

using Parameters = std::span<const kelbus_parameter>;

// A kind of request: where it goes and what answers it.
struct RequestKind {
    Connection kelbus::*connection;
    const char* address;
    const char* request;
    const char* success;
    const char* failure; // null: there is none
};

constexpr RequestKind kGet{&kelbus::get, endpoints::kGet, "GET_ACTION", "GET_RESPONSE_ACTION",
                           "GET_RESPONSE_FAIL_ACTION"};
constexpr RequestKind kGetAll{&kelbus::get_all, endpoints::kGetAll, "GET_ALL_ACTION",
                              "GET_RESPONSE_ALL_ACTION", nullptr};
constexpr RequestKind kGetGroup{&kelbus::get_group, endpoints::kGetGroup, "GET_GROUP_ACTION",
                                "GET_RESPONSE_GROUP_ACTION", nullptr};

constexpr RequestKind setKind(const char* request) {
    return {&kelbus::set, endpoints::kSet, request, "SET_RESPONSE_ACTION",
            "SET_RESPONSE_FAIL_ACTION"};
}
// By kelbus_kind.
constexpr std::array kSetKinds{setKind("SET_ACTION"), setKind("SET_ACTION_DIRECT"),
                               setKind("SET_ACTION_NO_DB")};

kelbus_error broken(kelbus& client) {
    client.message = "the answer of the configuration service cannot be understood";
    return KELBUS_BROKEN_REPLY;
}

kelbus_error badArgument(kelbus& client, const char* why) {
    client.message = why;
    return KELBUS_BAD_ARGUMENT;
}

kelbus_error unknownName(kelbus& client, const char* name) {
    client.message = std::string{"no parameter has the name \""} + name + "\"";
    return KELBUS_UNKNOWN_NAME;
}

bool isFailure(const ReplyDocument& reply, const RequestKind& kind) {
    return kind.failure != nullptr && reply.root == kind.failure;
}

// KELBUS_OK: an answer of success or of failure is in `reply`.
kelbus_error request(kelbus& client, const RequestKind& kind, Parameters parameters,
                     ReplyDocument& reply, const Deadline& deadline) {
    RequestDocument document;
    kelbus_error error = buildRequest(kind.request, parameters, document, client.message);
    if (error != KELBUS_OK) {
        return error;
    }
    Message message;
    Connection& connection = client.*kind.connection;
    error = exchange(client.context, connection, kind.address, document.view(), message, deadline,
                     client.message);
    if (error != KELBUS_OK) {
        return error;
    }
    if (!client.reader.read({message.data(), message.size()}, reply)) {
        return broken(client);
    }
    return reply.root == kind.success || isFailure(reply, kind) ? KELBUS_OK : broken(client);
}

bool answers(const ReplyDocument& reply, Parameters parameters) {
    if (reply.parameters.size() != parameters.size()) {
        return false;
    }
    for (std::size_t i = 0; i < parameters.size(); ++i) {
        if (viewOf(reply.text(reply.parameters[i].name)) != parameters[i].name) {
            return false;
        }
    }
    return true;
}

// A GET whose answer is sure to list the names. An answer of failure: some of them are unknown.
kelbus_error getValues(kelbus& client, Parameters names, ReplyDocument& reply,
                       const Deadline& deadline) {
    const kelbus_error error = request(client, kGet, names, reply, deadline);
    return error == KELBUS_OK && !answers(reply, names) ? broken(client) : error;
}

// Looks for the unknown ones among `doubtful`, of which at least one was just now. Halving finds
// few among many soon. Gives each of `values` that is unknown the value null.
class UnknownNames {
  public:
    UnknownNames(kelbus& client, ValueList& values, const Deadline& deadline)
        : client_(client), values_(values), deadline_(deadline) {}

    kelbus_error find(std::span<const std::size_t> doubtful) {
        if (doubtful.size() == 1) {
            values_.parameters[doubtful.front()].value = nullptr;
            return KELBUS_OK;
        }
        const std::size_t half = doubtful.size() / 2;
        const kelbus_error error = findIfAny(doubtful.first(half));
        return error == KELBUS_OK ? findIfAny(doubtful.subspan(half)) : error;
    }

  private:
    kelbus_error findIfAny(std::span<const std::size_t> doubtful) {
        std::vector<kelbus_parameter> names;
        names.reserve(doubtful.size());
        for (const std::size_t i : doubtful) {
            names.push_back({values_.parameters[i].name, nullptr});
        }
        ReplyDocument reply;
        const kelbus_error error = getValues(client_, names, reply, deadline_);
        return error == KELBUS_OK && isFailure(reply, kGet) ? find(doubtful) : error;
    }

    kelbus& client_;
    ValueList& values_;
    const Deadline& deadline_;
};

// The names of `parameters`, without their values.
std::vector<kelbus_parameter> namesOf(Parameters parameters) {
    std::vector<kelbus_parameter> names{parameters.begin(), parameters.end()};
    for (kelbus_parameter& name : names) {
        name.value = nullptr;
    }
    return names;
}

// A failure answer gives an unknown name the value of an empty one.
kelbus_error markUnknown(kelbus& client, ValueList& values, const Deadline& deadline) {
    std::vector<std::size_t> doubtful;
    for (std::size_t i = 0; i < values.parameters.size(); ++i) {
        if (viewOf(values.parameters[i].value).empty()) {
            doubtful.push_back(i);
        }
    }
    if (doubtful.empty()) {
        return broken(client);
    }
    const kelbus_error error = UnknownNames{client, values, deadline}.find(doubtful);
    if (error != KELBUS_OK) {
        return error;
    }
    for (const kelbus_parameter& parameter : values.parameters) {
        if (parameter.value == nullptr) {
            return unknownName(client, parameter.name);
        }
    }
    return KELBUS_OK; // the names have come to be known meanwhile
}

kelbus_error getMany(kelbus& client, Parameters names, std::unique_ptr<ValueList>& values,
                     const Deadline& deadline) {
    ReplyDocument reply;
    kelbus_error error = getValues(client, names, reply, deadline);
    if (error != KELBUS_OK) {
        return error;
    }
    const bool some_unknown = isFailure(reply, kGet);
    values = makeValueList(std::move(reply));
    if (some_unknown) {
        error = markUnknown(client, *values, deadline);
    }
    if (error != KELBUS_OK && error != KELBUS_UNKNOWN_NAME) {
        values.reset();
    }
    return error;
}

// Why a SET was refused: the first name that is unknown, where there is one.
kelbus_error explainRefusal(kelbus& client, Parameters parameters, const Deadline& deadline) {
    std::unique_ptr<ValueList> values;
    const kelbus_error error = getMany(client, namesOf(parameters), values, deadline);
    if (error == KELBUS_UNKNOWN_NAME) {
        return error;
    }
    client.message = "the configuration service refused to set the values";
    return KELBUS_REFUSED;
}

kelbus_error setMany(kelbus& client, Parameters parameters, kelbus_kind kind,
                     const Deadline& deadline) {
    const auto index = static_cast<std::size_t>(kind);
    if (index >= kSetKinds.size()) {
        return badArgument(client, "there is no such kind of setting");
    }
    for (const kelbus_parameter& parameter : parameters) {
        if (parameter.value == nullptr) {
            return badArgument(client, "a value is null");
        }
    }
    ReplyDocument reply;
    const kelbus_error error = request(client, kSetKinds[index], parameters, reply, deadline);
    return error == KELBUS_OK && isFailure(reply, kSetKinds[index])
               ? explainRefusal(client, parameters, deadline)
               : error;
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

// The same for a call that gives values.
template <typename Body>
kelbus_error guardedValues(kelbus* client, kelbus_values** values, Body body) {
    if (values == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    *values = nullptr;
    return guarded(client, [&](kelbus& open) {
        std::unique_ptr<ValueList> list;
        const kelbus_error error = body(open, list);
        *values = list.release();
        return error;
    });
}

// One of the calls whose answer is a list of its own.
kelbus_error getListing(kelbus& client, const RequestKind& kind, Parameters parameters,
                        std::unique_ptr<ValueList>& values, int timeout_ms) {
    ReplyDocument reply;
    const kelbus_error error = request(client, kind, parameters, reply, Deadline{timeout_ms});
    if (error == KELBUS_OK) {
        values = makeValueList(std::move(reply));
    }
    return error;
}

// Null when `names` is no list of `count` names.
bool readNames(const char* const* names, std::size_t count,
               std::vector<kelbus_parameter>& parameters) {
    if (names == nullptr && count > 0) {
        return false;
    }
    parameters.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        parameters.push_back({names[i], nullptr});
    }
    return true;
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
    }
    return "unknown error";
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
        const kelbus_parameter asked{name, nullptr};
        ReplyDocument reply;
        const kelbus_error error = getValues(open, {&asked, 1}, reply, Deadline{timeout_ms});
        if (error != KELBUS_OK) {
            return error;
        }
        if (isFailure(reply, kGet)) {
            return unknownName(open, name);
        }
        *value = newText(reply.text(reply.parameters.front().value));
        return *value != nullptr ? KELBUS_OK : KELBUS_NO_MEMORY;
    });
}

kelbus_error kelbus_get_many(kelbus* client, const char* const* names, size_t count,
                             kelbus_values** values, int timeout_ms) {
    return guardedValues(client, values, [&](kelbus& open, std::unique_ptr<ValueList>& list) {
        std::vector<kelbus_parameter> parameters;
        return readNames(names, count, parameters)
                   ? getMany(open, parameters, list, Deadline{timeout_ms})
                   : badArgument(open, "the names are null");
    });
}

kelbus_error kelbus_get_all(kelbus* client, kelbus_values** values, int timeout_ms) {
    return guardedValues(client, values, [&](kelbus& open, std::unique_ptr<ValueList>& list) {
        return getListing(open, kGetAll, {}, list, timeout_ms);
    });
}

kelbus_error kelbus_get_group(kelbus* client, const char* const* groups, size_t count,
                              kelbus_values** values, int timeout_ms) {
    return guardedValues(client, values, [&](kelbus& open, std::unique_ptr<ValueList>& list) {
        std::vector<kelbus_parameter> parameters;
        return readNames(groups, count, parameters)
                   ? getListing(open, kGetGroup, parameters, list, timeout_ms)
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
        return setMany(open, {parameters, count}, kind, Deadline{timeout_ms});
    });
}
