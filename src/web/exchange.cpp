#include "web/exchange.h"

#include "base/aligned.h"
#include "web/access.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>

#include <cstring>
#include <exception>

namespace kelconf::web {

namespace {

constexpr std::string_view kApi = "api/v1/"; // after the first "/" of a path
constexpr std::size_t kAllBodies = std::size_t{8} << 20;
constexpr std::size_t kMostQueries = 64;
constexpr std::size_t kBlock = 16384; // of a stream
constexpr std::size_t kEventBlock = 2048;

// Nothing is loaded from elsewhere, no script stands in the page, nobody frames it.
constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'; require-trusted-types-for "
    "'script'";

std::string header(MHD_Connection* connection, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value == nullptr ? "" : value;
}

bool takesGzip(MHD_Connection* connection) {
    return header(connection, "Accept-Encoding").find("gzip") != std::string::npos;
}

// An IPv6 network of 64 bits is one customer: it counts as one address.
std::string addressOf(const sockaddr* peer, bool& loopback) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    loopback = false;
    if (peer == nullptr) {
        return "?";
    }
    if (peer->sa_family == AF_INET) {
        const auto* ipv4 = alignedCast<const sockaddr_in>(peer);
        loopback = ntohl(ipv4->sin_addr.s_addr) >> 24U == 127;
        inet_ntop(AF_INET, &ipv4->sin_addr, text.data(), text.size());
        return text.data();
    }
    in6_addr address = alignedCast<const sockaddr_in6>(peer)->sin6_addr;
    loopback = IN6_IS_ADDR_LOOPBACK(&address) ||
               (IN6_IS_ADDR_V4MAPPED(&address) && address.s6_addr[12] == 127);
    if (!loopback && !IN6_IS_ADDR_V4MAPPED(&address)) {
        std::memset(&address.s6_addr[8], 0, 8);
    }
    inet_ntop(AF_INET6, &address, text.data(), text.size());
    return text.data();
}

bool isProxied(MHD_Connection* connection) {
    for (const char* name : {"Forwarded", "X-Forwarded-For", "X-Real-IP", "Via"}) {
        if (MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name) != nullptr) {
            return true;
        }
    }
    return false;
}

MHD_Result addQuery(void* to, MHD_ValueKind /*kind*/, const char* key, const char* value) {
    auto& query = *static_cast<std::vector<std::pair<std::string, std::string>>*>(to);
    query.emplace_back(key, value == nullptr ? "" : value);
    return query.size() < kMostQueries ? MHD_YES : MHD_NO;
}

ssize_t readStream(void* of, std::uint64_t /*at*/, char* to, std::size_t size) {
    const std::ptrdiff_t got = static_cast<Stream*>(of)->read(to, size);
    return got == Stream::kEnd      ? MHD_CONTENT_READER_END_OF_STREAM
           : got == Stream::kBroken ? MHD_CONTENT_READER_END_WITH_ERROR
                                    : got;
}

void freeStream(void* stream) {
    delete static_cast<Stream*>(stream);
}

using SharedText = std::shared_ptr<const std::string>;

void freeShared(void* text) {
    delete static_cast<SharedText*>(text);
}

MHD_Response* sharedResponse(const SharedText& text) {
    auto kept = std::make_unique<SharedText>(text);
    MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
        text->size(), const_cast<char*>(text->data()), freeShared, kept.get());
    if (response != nullptr) {
        (void)kept.release(); // freeShared owns it
    }
    return response;
}

MHD_Response* responseOf(MHD_Connection* connection, Answer& answer) {
    if (answer.shared) {
        return sharedResponse(answer.shared);
    }
    if (!answer.stream) {
        return MHD_create_response_from_buffer(answer.body.size(), answer.body.data(),
                                               MHD_RESPMEM_MUST_COPY);
    }
    answer.stream->sleep = [connection] { MHD_suspend_connection(connection); };
    answer.stream->wake = [connection] { MHD_resume_connection(connection); };
    const bool events = answer.type == "text/event-stream";
    MHD_Response* response =
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, events ? kEventBlock : kBlock,
                                          readStream, answer.stream.get(), freeStream);
    if (response != nullptr) {
        (void)answer.stream.release(); // freeStream owns it
    }
    return response;
}

// Sends and lets go of a response.
MHD_Result queue(MHD_Connection* connection, unsigned status, MHD_Response* response) {
    if (response == nullptr) {
        return MHD_NO;
    }
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(response, "Referrer-Policy", "no-referrer");
    MHD_add_response_header(response, "Cross-Origin-Resource-Policy", "same-origin");
    MHD_add_response_header(response, "Content-Security-Policy", kPolicy);
    const MHD_Result queued = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return queued;
}

std::optional<Answer> guarded(std::optional<Answer> (*work)(Exchange& self), Exchange& self) {
    try {
        return work(self);
    } catch (const std::exception&) { // no memory
        return failure(503, "unavailable", "the server is out of memory");
    }
}

} // namespace

Exchange::Exchange(Exchanges& shared, MHD_Connection* connection, const char* path,
                   const char* method)
    : shared_(shared), connection_(connection) {
    call_.method = method;
    call_.path = *path == '/' ? path : "/"; // "*" is one, too
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, addQuery, &call_.query);
    const auto* about = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    bool loopback = false;
    call_.address = addressOf(about == nullptr ? nullptr : about->client_addr, loopback);
    call_.from_here = loopback && !isProxied(connection);
    const char* cookie = MHD_lookup_connection_value(connection, MHD_COOKIE_KIND, "kelconf");
    call_.cookie = cookie == nullptr ? "" : cookie;
    call_.authorization = header(connection, "Authorization");
    call_.csrf = header(connection, "X-Kelconf-Csrf");
    call_.fetch_site = header(connection, "Sec-Fetch-Site");
    call_.origin = header(connection, "Origin");
    call_.host = header(connection, "Host");
    call_.content_type = header(connection, "Content-Type");
    call_.if_none_match = header(connection, "If-None-Match");
}

Exchange::~Exchange() {
    shared_.body_bytes -= call_.body.size();
}

MHD_Result Exchange::go(const char* part, std::size_t* size) {
    switch (stage_) {
    case Stage::kHead:
        return takeHead();
    case Stage::kProving:
        stage_ = Stage::kBody;
        return answer_ ? answer(std::move(*answer_)) : MHD_YES;
    case Stage::kBody:
        return *size > 0 ? takePart(part, size) : takeWhole();
    case Stage::kFile:
        return answerFile();
    case Stage::kRunning:
        return answer_ ? answer(std::move(*answer_)) : MHD_NO;
    case Stage::kAnswered:
        *size = 0; // what still comes of the body
        return MHD_YES;
    }
    return MHD_NO;
}

MHD_Result Exchange::takeHead() {
    if (!std::string_view{call_.path}.substr(1).starts_with(kApi)) {
        stage_ = Stage::kFile;
        return hasBody() ? answerFile() : MHD_YES;
    }
    call_.path.erase(0, kApi.size() + 1);
    bool path_known = false;
    route_ = findRoute(call_, path_known);
    if (route_ == nullptr) {
        return answer(path_known ? failure(405, "bad_request", "no such method here")
                                 : failure(404, "not_found", "no such path"));
    }
    bool unproven = false;
    if (auto wrong = checkCaller(shared_.site, call_, *route_, unproven)) {
        return answer(std::move(*wrong));
    }
    if (tooLarge()) {
        return answer(failure(413, "too_large", "the body is too large"));
    }
    if (unproven) {
        return later(Stage::kProving,
                     [](Exchange& self) { return provePassword(self.shared_.site, self.call_); });
    }
    stage_ = Stage::kBody;
    return MHD_YES;
}

bool Exchange::hasBody() const {
    const std::string length = header(connection_, "Content-Length");
    return (!length.empty() && length != "0") || !header(connection_, "Transfer-Encoding").empty();
}

// By what the head says of the body.
bool Exchange::tooLarge() const {
    const std::string length = header(connection_, "Content-Length");
    constexpr std::size_t kDigits = 18;
    return length.size() > kDigits ||
           (!length.empty() && std::strtoull(length.c_str(), nullptr, 10) > route_->most_bytes);
}

MHD_Result Exchange::takePart(const char* part, std::size_t* size) {
    if (call_.body.size() + *size > route_->most_bytes) {
        return MHD_NO; // more than was announced, or without an announcement: the connection ends
    }
    if (shared_.body_bytes + *size > kAllBodies) {
        return MHD_NO;
    }
    shared_.body_bytes += *size;
    call_.body.append(part, *size);
    *size = 0;
    return MHD_YES;
}

MHD_Result Exchange::takeWhole() {
    if (!route_->waits) {
        return answer(route_->run(shared_.site, call_));
    }
    return later(Stage::kRunning, [](Exchange& self) {
        return std::optional{self.route_->run(self.shared_.site, self.call_)};
    });
}

// Has another thread do the work; go() is called again when it is done.
MHD_Result Exchange::later(Stage stage, std::optional<Answer> (*work)(Exchange& self)) {
    stage_ = stage;
    MHD_suspend_connection(connection_);
    const bool taken = shared_.workers.add([this, work] {
        answer_ = guarded(work, *this);
        MHD_resume_connection(connection_);
    });
    if (!taken) {
        answer_ = failure(503, "too_many", "too many requests at a time");
        MHD_resume_connection(connection_);
    }
    return MHD_YES;
}

// An answer before the body has come ends the connection; one without a body is to be kept, and is
// answered when libmicrohttpd calls again.
MHD_Result Exchange::answer(Answer answer) {
    if (stage_ == Stage::kHead && !hasBody()) {
        answer_ = std::move(answer);
        stage_ = Stage::kRunning;
        return MHD_YES;
    }
    stage_ = Stage::kAnswered;
    MHD_Response* response = responseOf(connection_, answer);
    if (response == nullptr) {
        return MHD_NO;
    }
    if (answer.status != 204 && answer.status != 304) {
        MHD_add_response_header(response, "Content-Type", answer.type.c_str());
    }
    bool tagged = false;
    for (const auto& [name, value] : answer.headers) {
        MHD_add_response_header(response, name.c_str(), value.c_str());
        tagged = tagged || name == "ETag";
    }
    MHD_add_response_header(response, "Cache-Control", tagged ? "private, no-cache" : "no-store");
    return queue(connection_, answer.status, response);
}

MHD_Result Exchange::answerFile() {
    bool lasting = false;
    const StaticFile* file = shared_.files.find(call_.path, lasting);
    if (file == nullptr || (call_.method != "GET" && call_.method != "HEAD")) {
        return answer(file == nullptr ? failure(404, "not_found", "no such file")
                                      : failure(405, "bad_request", "no such method here"));
    }
    stage_ = Stage::kAnswered;
    const bool same = call_.if_none_match == file->tag;
    const bool compressed = !file->compressed.empty() && takesGzip(connection_);
    const std::string& content = compressed ? file->compressed : file->plain;
    MHD_Response* response = MHD_create_response_from_buffer(
        same ? 0 : content.size(), const_cast<char*>(content.data()), MHD_RESPMEM_PERSISTENT);
    if (response == nullptr) {
        return MHD_NO;
    }
    MHD_add_response_header(response, "Content-Type", file->type.c_str());
    MHD_add_response_header(response, "ETag", file->tag.c_str());
    MHD_add_response_header(response, "Vary", "Accept-Encoding");
    if (compressed && !same) {
        MHD_add_response_header(response, "Content-Encoding", "gzip");
    }
    MHD_add_response_header(response, "Cache-Control",
                            lasting ? "public, max-age=31536000, immutable" : "no-cache");
    return queue(connection_, same ? 304 : 200, response);
}

} // namespace kelconf::web
