// A call of a client while it is under way: its requests one after the other, until the answer is
// whole. Most calls are one request; telling which names are unknown may take more.
#pragma once

#include "base/fd.h"
#include "client/client.h"
#include "client/unknown_names.h"
#include "client/values.h"

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kelconf {

using Parameters = std::span<const kelbus_parameter>;

// A kind of request: where it goes and what answers it.
struct RequestKind {
    Connection kelbus::*connection;
    const char* address;
    const char* request;
    const char* success;
    const char* failure; // null: there is none
};

// Used by the client's thread. The client outlives it, and so do the parameters that it is begun
// with. What failed is in the client's message. Throws std::bad_alloc.
class Call {
  public:
    explicit Call(kelbus& client) : client_(client) {}

    // One of these begins it, by sending the first request.
    kelbus_error get(Parameters names);
    kelbus_error group(Parameters names);
    kelbus_error list(std::string_view prefix); // all whose names begin so
    kelbus_error set(Parameters parameters, kelbus_kind kind);

    // Goes on until the answer is whole. KELBUS_TIMEOUT: not yet. All others: it is over.
    kelbus_error finish(const Deadline& deadline);

    // The answer of the reading ones, with KELBUS_OK and KELBUS_UNKNOWN_NAME; null otherwise.
    std::unique_ptr<ValueList> takeValues() { return std::move(values_); }

    // Readable when finish may have something to do; the call's own. -1 when there is none left.
    int descriptor();

  private:
    kelbus_error send(const RequestKind& kind, Parameters parameters);
    void pollConnection(int operation) const;
    void giveBack();
    // These give the result when the call is over; nothing when another request was sent.
    std::optional<kelbus_error> take(ReplyDocument& reply);
    std::optional<kelbus_error> takeValuesOf(ReplyDocument& reply, bool failure);
    std::optional<kelbus_error> searchOn(const ReplyDocument& reply, bool failure);
    std::optional<kelbus_error> ask(Parameters names);
    std::optional<kelbus_error> askNext();
    kelbus_error broken();

    kelbus& client_;
    const RequestKind* kind_ = nullptr; // of the request that is under way
    Connection connection_;             // the one that it uses
    Parameters parameters_;
    std::string prefix_;
    bool explains_ = false; // a SET was refused: a GET is to tell why
    std::unique_ptr<ValueList> values_;
    std::optional<UnknownNames> search_;
    std::vector<kelbus_parameter> asked_; // what the search asked for
    Fd poller_;                           // both descriptors of the connection
};

} // namespace kelconf
