#include "client/watched_values.h"

#include <sys/epoll.h>

namespace kelconf {

namespace {

// The subscription ends with the service, and the next one brings the values.
bool serviceEnded(kelbus_error error) {
    return error == KELBUS_NO_SERVICE || error == KELBUS_REFUSED;
}

} // namespace

kelbus_error WatchedValues::fetch(const Fd& poller) {
    poller_ = poller.get();
    request_.reset();
    values_.reset();
    missing_ = true;
    return begin();
}

kelbus_error WatchedValues::begin() {
    if (!client_) {
        kelbus* client = nullptr;
        if (kelbus_open(&client) != KELBUS_OK) {
            return KELBUS_NO_MEMORY;
        }
        client_.reset(client);
    }
    kelbus_request* request = nullptr;
    const kelbus_error error = kelbus_start_list(client_.get(), "", &request);
    request_.reset(request);
    missing_ = error != KELBUS_OK && !serviceEnded(error);
    if (error != KELBUS_OK) {
        return missing_ ? error : KELBUS_OK;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    const int descriptor = kelbus_request_fd(request);
    return epoll_ctl(poller_, EPOLL_CTL_ADD, descriptor, &event) == 0 ? KELBUS_OK
                                                                      : KELBUS_NO_MEMORY;
}

kelbus_error WatchedValues::advance() {
    if (missing_) {
        const kelbus_error error = begin();
        if (error != KELBUS_OK) {
            return error;
        }
    }
    if (!request_) {
        return KELBUS_OK;
    }
    kelbus_values* values = nullptr;
    const kelbus_error error = kelbus_request_finish(request_.get(), &values, 0);
    if (error == KELBUS_TIMEOUT) {
        return KELBUS_OK;
    }
    static_cast<void>(request_.release()); // it has ended
    values_.reset(values);
    next_ = 0;
    missing_ = error != KELBUS_OK && !serviceEnded(error);
    return missing_ ? error : KELBUS_OK;
}

const kelbus_parameter* WatchedValues::take() {
    if (!values_ || next_ == values_->count) {
        values_.reset();
        return nullptr;
    }
    return &values_->items[next_++];
}

} // namespace kelconf
