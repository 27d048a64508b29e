#include "client/call.h"

#include "bus/endpoints.h"
#include "client/request_document.h"
#include "text/text.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>

namespace kelconf {

namespace {

constexpr std::size_t kGroupBytes = 8; // names that agree in these are of one group

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

bool answers(const ReplyDocument& reply, Parameters names) {
    return std::equal(reply.parameters.begin(), reply.parameters.end(), names.begin(), names.end(),
                      [&](const ReplyParameter& answered, const kelbus_parameter& asked) {
                          return viewOf(reply.text(answered.name)) == asked.name;
                      });
}

// The names of `parameters`, without their values.
std::vector<kelbus_parameter> namesOf(Parameters parameters) {
    std::vector<kelbus_parameter> names{parameters.begin(), parameters.end()};
    for (kelbus_parameter& name : names) {
        name.value = nullptr;
    }
    return names;
}

kelbus_error unknownName(kelbus& client, const char* name) {
    client.message = std::string{"no parameter has the name \""} + name + "\"";
    return KELBUS_UNKNOWN_NAME;
}

kelbus_error refused(kelbus& client) {
    client.message = "the configuration service refused to set the values";
    return KELBUS_REFUSED;
}

} // namespace

kelbus_error Call::get(Parameters names) {
    parameters_ = names;
    return send(kGet, names);
}

kelbus_error Call::group(Parameters names) {
    return send(kGetGroup, names);
}

// All that begin alike in eight bytes are of one group: a shorter answer.
kelbus_error Call::list(std::string_view prefix) {
    prefix_ = prefix;
    if (prefix_.size() < kGroupBytes) {
        return send(kGetAll, {});
    }
    const kelbus_parameter group{prefix_.c_str(), nullptr};
    return send(kGetGroup, {&group, 1});
}

kelbus_error Call::set(Parameters parameters, kelbus_kind kind) {
    const auto index = static_cast<std::size_t>(kind);
    if (index >= kSetKinds.size()) {
        return badArgument(client_, "there is no such kind of setting");
    }
    for (const kelbus_parameter& parameter : parameters) {
        if (parameter.value == nullptr) {
            return badArgument(client_, "a value is null");
        }
    }
    parameters_ = parameters;
    return send(kSetKinds[index], parameters);
}

kelbus_error Call::finish(const Deadline& deadline) {
    for (;;) {
        Message message;
        const kelbus_error error =
            awaitReply(connection_, kind_->address, message, deadline, client_.message);
        if (error == KELBUS_TIMEOUT) {
            return error;
        }
        if (error != KELBUS_OK) {
            values_.reset();
            return error;
        }
        giveBack();
        ReplyDocument reply;
        const bool read = client_.reader.read({message.data(), message.size()}, reply);
        const std::optional<kelbus_error> result = read ? take(reply) : broken();
        if (result && *result != KELBUS_OK && *result != KELBUS_UNKNOWN_NAME) {
            values_.reset();
        }
        if (result) {
            return *result;
        }
    }
}

int Call::descriptor() {
    if (!poller_) {
        poller_ = Fd{epoll_create1(EPOLL_CLOEXEC)};
        pollConnection(EPOLL_CTL_ADD);
    }
    return poller_.get();
}

kelbus_error Call::send(const RequestKind& kind, Parameters parameters) {
    RequestDocument document;
    kelbus_error error = buildRequest(kind.request, parameters, document, client_.message);
    if (error != KELBUS_OK) {
        return error;
    }
    kind_ = &kind;
    connection_ = std::exchange(client_.*kind.connection, {});
    error =
        sendRequest(client_.context, connection_, kind.address, document.view(), client_.message);
    if (error == KELBUS_OK) {
        pollConnection(EPOLL_CTL_ADD);
    } else {
        closeConnection(connection_);
    }
    return error;
}

void Call::pollConnection(int operation) const {
    if (!poller_) {
        return;
    }
    for (void* socket : {connection_.requests.get(), connection_.events.get()}) {
        int descriptor = -1;
        std::size_t size = sizeof descriptor;
        zmq_getsockopt(socket, ZMQ_FD, &descriptor, &size);
        epoll_event event{};
        event.events = EPOLLIN;
        epoll_ctl(poller_.get(), operation, descriptor, &event);
    }
}

void Call::giveBack() {
    pollConnection(EPOLL_CTL_DEL);
    Connection& place = client_.*kind_->connection;
    if (place.requests) { // another call has given one back
        closeConnection(connection_);
    } else {
        place = std::exchange(connection_, {});
    }
}

std::optional<kelbus_error> Call::take(ReplyDocument& reply) {
    const bool failure = kind_->failure != nullptr && reply.root == kind_->failure;
    if (!failure && reply.root != kind_->success) {
        return broken();
    }
    if (kind_ == &kGet) {
        return search_ ? searchOn(reply, failure) : takeValuesOf(reply, failure);
    }
    if (kind_->failure != nullptr) { // a SET
        explains_ = failure;
        return failure ? ask(asked_ = namesOf(parameters_)) : KELBUS_OK;
    }
    values_ = makeValueList(std::move(reply));
    keepPrefix(*values_, prefix_);
    return KELBUS_OK;
}

std::optional<kelbus_error> Call::takeValuesOf(ReplyDocument& reply, bool failure) {
    if (!answers(reply, parameters_)) {
        return broken();
    }
    values_ = makeValueList(std::move(reply));
    if (!failure) {
        return explains_ ? refused(client_) : KELBUS_OK;
    }
    search_.emplace(*values_);
    return search_->possible() ? askNext() : broken();
}

std::optional<kelbus_error> Call::searchOn(const ReplyDocument& reply, bool failure) {
    if (!answers(reply, asked_)) {
        return broken();
    }
    search_->answered(failure);
    return askNext();
}

std::optional<kelbus_error> Call::ask(Parameters names) {
    const kelbus_error error = send(kGet, names);
    return error == KELBUS_OK ? std::optional<kelbus_error>{} : error;
}

std::optional<kelbus_error> Call::askNext() {
    if (!search_->over()) {
        return ask(asked_ = search_->question());
    }
    if (const char* unknown = search_->first()) {
        return unknownName(client_, unknown);
    }
    return explains_ ? refused(client_) : KELBUS_OK;
}

kelbus_error Call::broken() {
    client_.message = "the answer of the configuration service cannot be understood";
    return KELBUS_BROKEN_REPLY;
}

} // namespace kelconf
