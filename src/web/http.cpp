#include "web/http.h"

#include "web/exchange.h"

#include <microhttpd.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <unordered_map>

namespace kelconf::web {

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kConnections = 1200;
constexpr unsigned kOfAnAddress = 256;
constexpr unsigned kSilent = 30;           // s, without a byte in either direction
constexpr std::chrono::seconds kWhole{45}; // for a request to come, and between two
constexpr std::size_t kHead = 16384;       // bytes, of a connection: its head and its answer's
constexpr unsigned kWorkers = 2;

} // namespace

struct Http::State {
    // A connection, and since when it has been receiving.
    struct Opened {
        int fd = -1;
        Clock::time_point since;
        bool answering = false; // kSilent is its limit then
    };

    State(Site& site, const StaticFiles& files) : workers(kWorkers), shared{site, files, workers} {}

    Workers workers;
    Exchanges shared;
    std::mutex mutex;
    std::unordered_map<MHD_Connection*, Opened> opened;
    MHD_Daemon* daemon = nullptr;

    void noteConnection(MHD_Connection* connection, bool open);
    void noteAnswering(MHD_Connection* connection, bool answering);
};

void Http::State::noteConnection(MHD_Connection* connection, bool open) {
    const std::lock_guard lock{mutex};
    if (!open) {
        opened.erase(connection);
        return;
    }
    const auto* about = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    opened[connection] = {about == nullptr ? -1 : about->connect_fd, Clock::now(), false};
}

void Http::State::noteAnswering(MHD_Connection* connection, bool answering) {
    const std::lock_guard lock{mutex};
    if (const auto found = opened.find(connection); found != opened.end()) {
        found->second.answering = answering;
        found->second.since = Clock::now();
    }
}

namespace {

void onConnection(void* state, MHD_Connection* connection, void** /*context*/,
                  MHD_ConnectionNotificationCode code) {
    static_cast<Http::State*>(state)->noteConnection(connection,
                                                     code == MHD_CONNECTION_NOTIFY_STARTED);
}

MHD_Result onRequest(void* of, MHD_Connection* connection, const char* path, const char* method,
                     const char* /*version*/, const char* part, std::size_t* size,
                     void** exchange) {
    auto* state = static_cast<Http::State*>(of);
    try {
        if (*exchange == nullptr) {
            *exchange = new Exchange(state->shared, connection, path, method);
        }
        auto* self = static_cast<Exchange*>(*exchange);
        const MHD_Result result = self->go(part, size);
        if (self->received()) {
            state->noteAnswering(connection, true);
        }
        return result;
    } catch (const std::exception&) {
        return MHD_NO; // no memory: the connection ends
    }
}

void onEnd(void* state, MHD_Connection* connection, void** exchange,
           MHD_RequestTerminationCode /*code*/) {
    delete static_cast<Exchange*>(*exchange);
    *exchange = nullptr;
    static_cast<Http::State*>(state)->noteAnswering(connection, false);
}

void beQuiet(void* /*context*/, const char* /*format*/, va_list /*arguments*/) {}

} // namespace

Http::Http(Site& site, const StaticFiles& files, const HttpOptions& options)
    : state_(std::make_unique<State>(site, files)) {
    const bool tls = !options.certificate.empty();
    const unsigned flags =
        MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG;
    const MHD_OptionItem none[] = {{MHD_OPTION_END, 0, nullptr}};
    MHD_OptionItem keys[] = {
        {MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(options.certificate.c_str())},
        {MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(options.key.c_str())},
        {MHD_OPTION_END, 0, nullptr}};
    state_->daemon = MHD_start_daemon(
        tls ? flags | MHD_USE_TLS : flags, 0, nullptr, nullptr, onRequest, state_.get(),
        MHD_OPTION_EXTERNAL_LOGGER, beQuiet, nullptr, MHD_OPTION_LISTEN_SOCKET, options.listening,
        MHD_OPTION_CONNECTION_LIMIT, kConnections, MHD_OPTION_PER_IP_CONNECTION_LIMIT, kOfAnAddress,
        MHD_OPTION_CONNECTION_TIMEOUT, kSilent, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kHead,
        MHD_OPTION_NOTIFY_COMPLETED, onEnd, state_.get(), MHD_OPTION_NOTIFY_CONNECTION,
        onConnection, state_.get(), MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_ARRAY,
        tls ? keys : none, MHD_OPTION_END);
}

Http::~Http() {
    state_->shared.site.hub.close();
    state_->workers.finish(); // what they still do resumes connections
    if (state_->daemon != nullptr) {
        MHD_stop_daemon(state_->daemon);
    }
}

Http::operator bool() const {
    return state_->daemon != nullptr;
}

void Http::cutSlow() {
    const std::lock_guard lock{state_->mutex};
    const auto now = Clock::now();
    for (const auto& [connection, opened] : state_->opened) {
        if (!opened.answering && now - opened.since > kWhole) {
            shutdown(opened.fd, SHUT_RDWR);
        }
    }
}

} // namespace kelconf::web
