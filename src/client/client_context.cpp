#include "client/client_context.h"

#include "client/headroom.h"

#include <zmq.h>

#include <mutex>

namespace kelconf {

namespace {

constexpr int kMostSockets = 16384; // three for a connection of a client, one or three for a watch

struct SharedContext {
    std::mutex mutex;
    void* context = nullptr; // guarded by mutex
    unsigned users = 0;      // guarded by mutex
    bool started = false;    // guarded by mutex: its threads run, from the first socket on
};

// Never destroyed: a client that a program's own static object holds may end after ours.
SharedContext& shared() {
    static auto* instance = new SharedContext;
    return *instance;
}

} // namespace

ContextUse::ContextUse() {
    SharedContext& all = shared();
    const std::lock_guard lock{all.mutex};
    if (all.context == nullptr) {
        all.context = zmq_ctx_new();
        zmq_ctx_set(all.context, ZMQ_MAX_SOCKETS, kMostSockets);
    }
    context_ = all.context;
    ++all.users;
}

ContextUse::~ContextUse() {
    SharedContext& all = shared();
    const std::lock_guard lock{all.mutex};
    if (--all.users == 0 && all.context != nullptr) {
        zmq_ctx_term(all.context);
        all.context = nullptr;
        all.started = false;
    }
}

Socket ContextUse::socket(int type) const {
    SharedContext& all = shared();
    const std::lock_guard lock{all.mutex};
    if (!(all.started ? roomForConnection() : roomForContext())) {
        return {};
    }
    Socket made{zmq_socket(context_, type)};
    all.started = all.started || made != nullptr;
    return made;
}

} // namespace kelconf
